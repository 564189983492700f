// Numbers and addresses as texts, and texts on the heap.
#include "base/text.h"

#include <charconv>

NumberText FormatNumber(int32_t number) {
  NumberText decimal{};
  std::to_chars(decimal.text, decimal.text + sizeof(decimal.text), number);
  return decimal;
}

AddressText FormatAddress(in_addr_t address) {
  AddressText dotted{};
  if (address == INADDR_NONE) return dotted;
  uint8_t bytes[sizeof(address)];
  memcpy(bytes, &address, sizeof(address));
  char* end = dotted.text;
  for (const uint8_t byte : bytes) {
    if (end != dotted.text) *end++ = '.';
    end = std::to_chars(end, dotted.text + sizeof(dotted.text), byte).ptr;
  }
  return dotted;
}

HeapText NewText(size_t length) { return HeapText(static_cast<char*>(calloc(1, length + 1))); }

HeapText JoinTexts(std::initializer_list<std::string_view> parts) {
  size_t length = 0;
  for (const std::string_view part : parts) length += part.size();

  HeapText text = NewText(length);
  if (text == nullptr) return text;
  char* end = text.get();
  for (const std::string_view part : parts) {
    CopyCharacters(end, part);
    end += part.size();
  }
  return text;
}
