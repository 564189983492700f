// Labels made of texts.
#include "standard/label.h"

#include <cstring>

namespace {

constexpr size_t kTxtStringMax = 255;

bool IsContinuation(char c) { return (static_cast<uint8_t>(c) & 0xC0) == 0x80; }

// The bytes of the UTF-8 character that `text` begins with; 0 when it is none (RFC 3629, section 4,
// where surrogates, overlong forms and what is above U+10FFFF are left out).
size_t CharacterLength(std::string_view text) {
  const uint8_t first = static_cast<uint8_t>(text[0]);
  if (first < 0x80) return 1;
  const size_t length = first < 0xC2   ? 0
                        : first < 0xE0 ? 2
                        : first < 0xF0 ? 3
                        : first < 0xF5 ? 4
                                       : 0;
  if (length == 0 || text.size() < length) return 0;
  for (size_t i = 1; i < length; ++i) {
    if (!IsContinuation(text[i])) return 0;
  }
  const uint8_t second = static_cast<uint8_t>(text[1]);
  const bool isOutside = (first == 0xE0 && second < 0xA0) || (first == 0xED && second > 0x9F) ||
                         (first == 0xF0 && second < 0x90) || (first == 0xF4 && second > 0x8F);
  return isOutside ? 0 : length;
}

bool IsControl(char c) { return static_cast<uint8_t>(c) < 0x20 || c == 0x7F; }

// What stands in a label for the character of `length` bytes that `text` begins with.
std::string_view Printable(std::string_view text, size_t length) {
  if (length == 0) return "?";
  return IsControl(text[0]) ? std::string_view(" ") : std::string_view(text.data(), length);
}

// The first bytes of `text`, at most `limit`, that end between characters.
std::string_view CutBetweenCharacters(std::string_view text, size_t limit) {
  if (text.size() <= limit) return text;
  while (limit > 0 && IsContinuation(text[limit])) --limit;
  return {text.data(), limit};
}

Suffix NumberedSuffix(std::string_view before, uint32_t number, std::string_view behind) {
  Suffix suffix = {};
  if (number == 0) return suffix;
  char digits[10];
  size_t first = sizeof(digits);
  for (uint32_t rest = number; rest != 0; rest /= 10) {
    digits[--first] = static_cast<char>('0' + rest % 10);
  }
  const size_t count = sizeof(digits) - first;
  memcpy(suffix.text, before.data(), before.size());
  memcpy(suffix.text + before.size(), digits + first, count);
  memcpy(suffix.text + before.size() + count, behind.data(), behind.size());
  return suffix;
}

std::string_view TakeLine(std::string_view& text) {
  // Not by substr(), which may throw and so needs the C++ library.
  const size_t end = text.find('\n');
  const bool isLast = end == std::string_view::npos;
  const std::string_view line(text.data(), isLast ? text.size() : end);
  text.remove_prefix(isLast ? text.size() : end + 1);
  return line;
}

}  // namespace

Label MakeLabel(std::string_view text, std::string_view suffix) {
  Label label = {};
  size_t length = 0;
  while (!text.empty()) {
    const size_t taken = CharacterLength(text);
    const std::string_view character = Printable(text, taken);
    if (length + character.size() + suffix.size() > kLabelMax) break;
    memcpy(label.text + length, character.data(), character.size());
    length += character.size();
    text.remove_prefix(taken == 0 ? 1 : taken);
  }
  for (const char c : suffix) label.text[length++] = c;
  label.length = static_cast<uint8_t>(length);
  return label;
}

Suffix HostSuffix(uint32_t number) { return NumberedSuffix("-", number, ""); }

Suffix InstanceSuffix(uint32_t number) { return NumberedSuffix(" (", number, ")"); }

size_t MakeTxt(std::string_view text, uint8_t* data, size_t capacity) {
  size_t length = 0;
  while (!text.empty()) {
    const std::string_view line = CutBetweenCharacters(TakeLine(text), kTxtStringMax);
    if (line.empty()) continue;
    if (line.size() + 1 > capacity - length) return 0;
    data[length] = static_cast<uint8_t>(line.size());
    memcpy(data + length + 1, line.data(), line.size());
    length += line.size() + 1;
  }
  if (length == 0) data[length++] = 0;
  return length;
}
