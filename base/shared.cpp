// The text that one thread replaces while others copy it: a sequence lock over 32-bit words.
#include "base/shared.h"

#include <cstring>

#include "base/text.h"

void SharedText::Set(std::string_view text) {
  char bytes[kWords * sizeof(uint32_t)];
  CopyText(bytes, sizeof(bytes), sizeof(bytes), text);

  const uint32_t before = version.load(std::memory_order_relaxed);
  version.store(before + 1, std::memory_order_relaxed);
  for (size_t i = 0; i < kWords; ++i) {
    uint32_t word = 0;
    memcpy(&word, bytes + i * sizeof(word), sizeof(word));
    // Each store releases the odd version: whoever reads a new word finds the version moved.
    words[i].store(word, std::memory_order_release);
  }
  version.store(before + 2, std::memory_order_release);
}

size_t SharedText::Copy(char* buffer, size_t size) const {
  char bytes[kWords * sizeof(uint32_t)];
  uint32_t before = 0;
  do {
    before = version.load(std::memory_order_acquire);
    for (size_t i = 0; i < kWords; ++i) {
      const uint32_t word = words[i].load(std::memory_order_acquire);
      memcpy(bytes + i * sizeof(word), &word, sizeof(word));
    }
  } while ((before & 1) != 0 || version.load(std::memory_order_relaxed) != before);

  const size_t length = strnlen(bytes, sizeof(bytes));
  const size_t count = size < length ? size : length;
  memcpy(buffer, bytes, count);
  return count;
}
