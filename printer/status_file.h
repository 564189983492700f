// The kernel's printer status file: reading it whole and stepping through its lines.
//
// For each port that has a printer it holds a record of five lines: "usblp" and the port's digit,
// the manufacturer, the model (may be empty), the command set, and a line that nobody reads.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

/// The path is the build's: the kernel's own file, or on a stock kernel the one of
/// bonjour-printers.
constexpr char kStatusFilePath[] = BONJOUR_STATUS_FILE;
/// What is logged when it can't be opened.
constexpr char kCannotOpenStatusFile[] = "[Bonjour] Can not open \"" BONJOUR_STATUS_FILE "\"";
/// The most bytes that are read of it, and the most that one read asks for.
constexpr size_t kStatusFileMax = 40960;
constexpr size_t kStatusReadMax = 4096;
/// A buffer for it: the bytes and a terminator.
constexpr size_t kStatusBufferSize = kStatusFileMax + 1;

/// What the first line of a record holds in front of the port's digit.
constexpr std::string_view kPortToken = "usblp";
/// Lines of a record.
constexpr int kRecordLines = 5;
/// Ports 0 to 9 are supported.
constexpr int32_t kPrinterPorts = 10;

/// Reads the file into `buffer`, which holds kStatusBufferSize bytes, and terminates the text
/// after the last byte. Returns the number of bytes read, 0 when there were none, or -1 when the
/// file can't be opened (errno says why). A read that fails ends the text. Monitor thread.
int32_t ReadPrinterStatus(char* buffer);

/// The position of the `count`-th line feed of `text` at or after `from`, npos when there are
/// fewer.
inline size_t FindLineEnd(std::string_view text, size_t from, int count) {
  size_t end = text.find('\n', from);
  while (--count > 0 && end != std::string_view::npos) end = text.find('\n', end + 1);
  return end;
}
