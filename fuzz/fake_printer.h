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

/// What a reader sees of a status file: its first 40960 bytes, up to the first zero byte.
std::string VisibleStatus(const std::string& content);

/// The text in a device id: after the length field, up to the first zero byte or the 512th byte.
std::string VisibleId(const std::string& id);
