#include "tests/support/bytes.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <regex>

Bytes Wire(std::string_view notation) {
  static const std::regex item(R"(\s*(?:(\d+)\*)?(?:'([^']*)'|([0-9A-F]{2}))\s*)");
  Bytes bytes;
  std::cmatch match;
  for (const char* at = notation.begin(); at != notation.end(); at = match[0].second) {
    if (!std::regex_search(at, notation.end(), match, item,
                           std::regex_constants::match_continuous)) {
      fprintf(stderr, "not a byte notation: %s\n", std::string(at, notation.end()).c_str());
      abort();
    }
    std::string text = match[2];
    if (match[3].matched) text = static_cast<char>(std::stoi(match[3], nullptr, 16));
    const unsigned long count = match[1].matched ? std::stoul(match[1]) : 1;
    for (unsigned long i = 0; i < count; ++i) bytes.insert(bytes.end(), text.begin(), text.end());
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
