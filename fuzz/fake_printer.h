// Takes the place of the status file and of the printers behind it.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

/// What the printer code finds when it looks. Without a function there is nothing.
struct FakePrinters {
  /// The status file's content, none when it can't be opened.
  std::function<std::optional<std::string>()> statusFile;
  /// The bytes of the device id of a port's printer, length field first, none when it can't be
  /// asked.
  std::function<std::optional<std::string>(int32_t port)> deviceId;
};

extern FakePrinters fakePrinters;

/// Asks for the TXT text of a port's printer, in a block of exactly the caller's size, and requires
/// that the result is one of the three and that a text stays inside the block.
void RequireSoundTxt(int32_t port, int32_t kind);
