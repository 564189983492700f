// The TXT text of a printer service: the keys of DNS-SD printer discovery, a line each.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "base/service_kinds.h"
#include "printer/device_id.h"

/// The longest TXT text, and a buffer for it with a terminator.
constexpr size_t kTxtMax = 512;
constexpr size_t kTxtSize = kTxtMax + 1;

/// The longest manufacturer and command set that go into a TXT text; longer lines are cut.
constexpr size_t kManufacturerMax = 15;
constexpr size_t kCommandSetMax = 511;

/// What is used of a port's record in the status file: lines 2 to 4, cut and zero-terminated.
struct PrinterStatusRecord {
  char manufacturer[kManufacturerMax + 1];
  char model[kModelMax + 1];  ///< empty in the file: to be had from the device id only
  char commandSet[kCommandSetMax + 1];
};

/// Results of the two operations below.
constexpr int32_t kTxtComplete = 1;
constexpr int32_t kTxtNoData = 0;
constexpr int32_t kTxtTooLong = -1;

/// Writes the TXT text for a printer into `txt`, kTxtSize zero-filled bytes. No terminator is
/// written. `port` is 0 to 9; a `kind` that is none of the above gets neither the rp nor the
/// priority key. `deviceName` is the host's name. Returns kTxtComplete, or kTxtTooLong when a line
/// reaches 128 characters (silent) or the text does not fit (with a message); `txt` may then hold a
/// part.
int32_t BuildTxtText(char* txt, int32_t port, int32_t kind, const PrinterStatusRecord& printer,
                     std::string_view deviceName);

/// Builds the TXT text of the service `kind` of the printer on `port` into `txt`, as above, from
/// the status file and, when that gives no model, from the printer's device id. Returns kTxtNoData
/// when the data can't be had: no memory, no file, no complete record of the port, no usable model.
/// Monitor thread; keeps nothing but the text.
int32_t GetTXTData(char* txt, int32_t port, int32_t kind);
