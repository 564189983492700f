// A printer's IEEE 1284 device id: two bytes of length, then key:value pairs that each end in ';'.
#pragma once

#include <cstddef>
#include <string_view>

/// Bytes that the driver is asked for.
constexpr size_t kDeviceIdSize = 512;
/// The longest model that is taken from a device id, in characters.
constexpr size_t kModelMax = 63;

/// The id text in the kDeviceIdSize bytes of `id`, without the length field, which is not looked
/// at: up to the first zero byte or the end of the block.
std::string_view DeviceIdText(const char* id);

/// Finds the value of the key MODEL in an id text. The key counts at one of the first two
/// characters or after a ';', and only with ':' after it; the short key MDL does not. Returns
/// false when there is none or the value is longer than kModelMax; otherwise `model` views it
/// within `text`.
bool FindModel(std::string_view text, std::string_view& model);
