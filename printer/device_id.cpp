// A printer's IEEE 1284 device id.
#include "printer/device_id.h"

#include <cstring>

namespace {

constexpr size_t kLengthFieldSize = 2;
constexpr std::string_view kModelKey = "MODEL";
// A key may stand this far into the text without a ';' before it.
constexpr size_t kLeadingPositions = 2;
constexpr char kValueMark = ':';
constexpr char kPairEnd = ';';

bool IsKeyAt(std::string_view text, size_t position) {
  const size_t after = position + kModelKey.size();
  if (after >= text.size() || text[after] != kValueMark) return false;
  return position < kLeadingPositions || text[position - 1] == kPairEnd;
}

}  // namespace

std::string_view DeviceIdText(const char* id) {
  const char* text = id + kLengthFieldSize;
  return {text, strnlen(text, kDeviceIdSize - kLengthFieldSize)};
}

bool FindModel(std::string_view text, std::string_view& model) {
  size_t position = text.find(kModelKey);
  while (position != std::string_view::npos && !IsKeyAt(text, position)) {
    position = text.find(kModelKey, position + kModelKey.size());
  }
  if (position == std::string_view::npos) return false;

  const size_t start = position + kModelKey.size() + 1;
  const size_t end = text.find(kPairEnd, start);
  const size_t length = (end == std::string_view::npos ? text.size() : end) - start;
  if (length > kModelMax) return false;
  model = std::string_view(text.data() + start, length);
  return true;
}
