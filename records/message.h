// The one way to look at a received message: every read is checked against what may be seen.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

/// The largest datagram that one receive asks for, in bytes.
constexpr size_t kReceiveSize = 1518;

/// A bounded view of message bytes, owned by the caller.
class MessageReader {
 public:
  /// Looks at the `length` bytes from `bytes` on.
  MessageReader(const uint8_t* bytes, size_t length) : data(bytes), size(length) {}

  /// Number of bytes that may be seen.
  size_t Length() const { return size; }
  /// True when the byte at `offset` may be seen.
  bool Has(size_t offset) const { return offset < size; }
  /// True when `count` bytes from `offset` on may be seen.
  bool Has(size_t offset, size_t count) const { return offset <= size && count <= size - offset; }
  /// The byte at `offset`, or 0 when it lies outside.
  uint8_t Byte(size_t offset) const { return Has(offset) ? data[offset] : uint8_t{0}; }
  /// The big-endian word at `offset`; bytes that lie outside count as 0.
  uint16_t Word(size_t offset) const {
    return static_cast<uint16_t>((Byte(offset) << 8) | Byte(offset + 1));
  }
  /// The bytes from `offset` on, `count` of them or as many as may be seen.
  std::string_view Text(size_t offset, size_t count) const {
    if (!Has(offset)) return {};
    const size_t left = size - offset;
    return {reinterpret_cast<const char*>(data + offset), count < left ? count : left};
  }

 private:
  const uint8_t* data;
  size_t size;
};
