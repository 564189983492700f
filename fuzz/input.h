// An input as a script: fixed and counted fields that a target reads one by one. Every input is
// valid: after its end all fields are zero and empty.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

/// Reads fields off the front of an input.
class Input {
 public:
  /// Reads the `size` bytes from `data` on, which stay the caller's.
  Input(const uint8_t* data, size_t size) : next(data), left(size) {}

  /// True when nothing is left.
  bool IsEmpty() const { return left == 0; }
  /// The next byte.
  uint8_t Byte() {
    if (left == 0) return 0;
    --left;
    return *next++;
  }
  /// The next two bytes, big-endian.
  uint16_t Word() {
    const unsigned high = Byte();
    return static_cast<uint16_t>((high << 8) | Byte());
  }
  /// The next four bytes, big-endian.
  uint32_t Long() {
    const uint32_t high = Word();
    return (high << 16) | Word();
  }
  /// The next `count` bytes, or as many as are left.
  std::string Bytes(size_t count) {
    const size_t taken = count < left ? count : left;
    std::string bytes(reinterpret_cast<const char*>(next), taken);
    next += taken;
    left -= taken;
    return bytes;
  }
  /// A byte that counts the bytes after it, and these up to the first zero byte.
  std::string Text() { return CutAtZero(Bytes(Byte())); }
  /// A word that counts the bytes after it, and these.
  std::string Block() { return Bytes(Word()); }
  /// As Block, up to the first zero byte.
  std::string LongText() { return CutAtZero(Block()); }

 private:
  static std::string CutAtZero(const std::string& text) { return text.c_str(); }

  const uint8_t* next;
  size_t left;
};

/// A copy of bytes in a heap block of exactly their number: a look one byte too far is an error
/// that AddressSanitizer sees.
class ExactBytes {
 public:
  explicit ExactBytes(std::string_view bytes)
      : size(bytes.size()), block(std::make_unique<uint8_t[]>(size == 0 ? 1 : size)) {
    bytes.copy(reinterpret_cast<char*>(block.get()), size);
  }

  /// The bytes; without any, the end of a block.
  uint8_t* Data() const { return block.get() + (size == 0 ? 1 : 0); }
  /// The bytes as text.
  std::string_view Text() const { return {reinterpret_cast<const char*>(Data()), size}; }
  /// Their number.
  size_t Size() const { return size; }

 private:
  size_t size;
  std::unique_ptr<uint8_t[]> block;
};

/// A zero-terminated copy of a text in a heap block of exactly its size.
class ExactText {
 public:
  explicit ExactText(std::string_view text) : bytes(std::string(text) + '\0') {}

  /// The text.
  const char* Get() const { return reinterpret_cast<const char*>(bytes.Data()); }

 private:
  ExactBytes bytes;
};
