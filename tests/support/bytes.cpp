#include "tests/support/bytes.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace {

[[noreturn]] void Refuse(std::string_view notation) {
  fprintf(stderr, "not a byte notation: %.*s\n", static_cast<int>(notation.size()),
          notation.data());
  abort();
}

uint8_t Digit(char c) {
  if (c >= '0' && c <= '9') return static_cast<uint8_t>(c - '0');
  if (c >= 'A' && c <= 'F') return static_cast<uint8_t>(c - 'A' + 10);
  Refuse({&c, 1});
}

}  // namespace

Bytes Wire(std::string_view notation) {
  Bytes bytes;
  size_t at = 0;
  while (at < notation.size()) {
    if (notation[at] == ' ' || notation[at] == '\n') {
      ++at;
      continue;
    }
    size_t count = 1;
    const size_t star = notation.find_first_not_of("0123456789", at);
    if (star != std::string_view::npos && notation[star] == '*') {
      count = std::stoul(std::string(notation.substr(at, star - at)));
      at = star + 1;
    }
    Bytes item;
    if (at < notation.size() && notation[at] == '\'') {
      const size_t end = notation.find('\'', at + 1);
      if (end == std::string_view::npos) Refuse(notation);
      item.assign(notation.begin() + static_cast<std::ptrdiff_t>(at) + 1,
                  notation.begin() + static_cast<std::ptrdiff_t>(end));
      at = end + 1;
    } else {
      if (at + 2 > notation.size()) Refuse(notation);
      item = {static_cast<uint8_t>(Digit(notation[at]) << 4 | Digit(notation[at + 1]))};
      at += 2;
    }
    for (; count > 0; --count) bytes.insert(bytes.end(), item.begin(), item.end());
  }
  return bytes;
}

std::string Hex(std::span<const uint8_t> bytes) {
  std::string text;
  for (const uint8_t byte : bytes) {
    char digits[4];
    snprintf(digits, sizeof(digits), "%s%02X", text.empty() ? "" : " ", unsigned{byte});
    text += digits;
  }
  return text;
}

std::string WireHex(std::string_view notation) { return Hex(Wire(notation)); }

ExactBytes::ExactBytes(std::span<const uint8_t> bytes) : ExactBytes(bytes.size()) {
  std::copy(bytes.begin(), bytes.end(), block.get());
}
