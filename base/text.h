// Texts in fixed fields and on the heap.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <string_view>

/// Frees a block of calloc(3) or malloc(3) for std::unique_ptr.
struct FreeBlock {
  void operator()(void* block) const { free(block); }
};

/// A zero-terminated text on the heap that frees itself; null when there was no memory for it.
using HeapText = std::unique_ptr<char, FreeBlock>;

/// Copies the characters of `text`, which may be empty without data, to `target`.
inline void CopyCharacters(char* target, std::string_view text) {
  if (!text.empty()) memcpy(target, text.data(), text.size());
}

/// Copies `text` into the `capacity` bytes of `field`, cut to `limit` characters, and fills the
/// rest of the field with zeros. `limit` is at most `capacity`; a field that is to end in a zero
/// has a limit below.
inline void CopyText(char* field, size_t capacity, size_t limit, std::string_view text) {
  memset(field, 0, capacity);
  CopyCharacters(field, {text.data(), text.size() < limit ? text.size() : limit});
}

/// Copies `text` into a whole array, cut to what fits before the terminator; the rest is zeros.
template <size_t kCapacity>
void CopyText(char (&field)[kCapacity], std::string_view text) {
  CopyText(field, kCapacity, kCapacity - 1, text);
}

/// The text in a zero-terminated field. A field without a terminator is read to its end.
template <size_t kCapacity>
std::string_view FieldText(const char (&field)[kCapacity]) {
  return {field, strnlen(field, kCapacity)};
}

/// A number in decimal form, zero-terminated.
struct NumberText {
  char text[12];
};
NumberText FormatNumber(int32_t number);

/// An IPv4 address in dotted form, zero-terminated.
struct AddressText {
  char text[INET_ADDRSTRLEN];
};
/// The dotted form of an address in network byte order; the empty text for INADDR_NONE.
AddressText FormatAddress(in_addr_t address);

/// A zero-filled heap text for `length` characters; null when there is no memory.
HeapText NewText(size_t length);

/// The parts, one after the other, as a new heap text; null when there is no memory.
HeapText JoinTexts(std::initializer_list<std::string_view> parts);
