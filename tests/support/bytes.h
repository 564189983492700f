// Bytes that tests write by hand, and buffers of the exact size.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

using Bytes = std::vector<uint8_t>;

/// Reads bytes in a notation close to a packet dump: items between blanks, each two hex digits or a
/// text in single quotes, either with a count and '*' before it. `Wire("40 64*'a' 00")` is the byte
/// 0x40, 64 times the letter a, a zero byte. Ends the process on anything else.
Bytes Wire(std::string_view notation);

/// The bytes as hex digits, with a blank between two.
std::string Hex(std::span<const uint8_t> bytes);

/// What Hex gives for the bytes of `notation`: the expected side of a comparison.
std::string WireHex(std::string_view notation);

/// A heap block of exactly the bytes, so that AddressSanitizer sees a look at one byte more.
class ExactBytes {
 public:
  explicit ExactBytes(size_t count) : block(new uint8_t[count]()), size(count) {}
  explicit ExactBytes(std::span<const uint8_t> bytes);
  uint8_t* Data() { return block.get(); }
  size_t Size() const { return size; }
  std::span<const uint8_t> View() const { return {block.get(), size}; }

 private:
  std::unique_ptr<uint8_t[]> block;
  size_t size;
};
