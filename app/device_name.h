// The router's model and the device name made from it and from the bridge's MAC address.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "base/responder.h"

/// A field for a model name: at most 42 characters and a terminator.
constexpr size_t kModelNameSize = 43;

/// Puts the model that the command line asks for into `model`: the argument, cut to the field, when
/// there is exactly one (`argc` 2), and then only if it is a known model; otherwise the default.
void ChooseModel(char (&model)[kModelNameSize], int argc, char* const* argv);

/// Puts model and MAC address into `name`, for example T5140_00-11-22-AA-BB-CC.
void FormatDeviceName(char (&name)[kDeviceNameSize], const char* model,
                      const uint8_t (&mac)[kMacSize]);

/// Reads the bridge's MAC address. Returns false, with `mac` unchanged, when it can't be had;
/// logged, unless there was no socket to ask with.
bool ReadBridgeMac(uint8_t (&mac)[kMacSize]);
