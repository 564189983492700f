// A set of small numbers: one bit each.
#pragma once

#include <cstddef>
#include <cstdint>

/// The number of the first set bit from `from` to before `end`; `end` when there is none.
inline size_t NextBit(const uint32_t* words, size_t from, size_t end) {
  while (from < end) {
    const uint32_t left = words[from / 32] >> from % 32;
    if (left != 0) return from + static_cast<size_t>(__builtin_ctz(left));
    from = (from | 31) + 1;
  }
  return end;
}

/// A set of numbers below `kSize`. All zero: empty.
template <size_t kSize>
struct BitSet {
  static constexpr size_t kWords = (kSize + 31) / 32;
  uint32_t words[kWords];

  bool Has(size_t i) const { return (words[i / 32] >> (i % 32) & 1U) != 0; }
  void Add(size_t i) { words[i / 32] |= uint32_t{1} << (i % 32); }
  void Remove(size_t i) { words[i / 32] &= ~(uint32_t{1} << (i % 32)); }
  void AddAll(const BitSet& other) {
    for (size_t i = 0; i < kWords; ++i) words[i] |= other.words[i];
  }
  void RemoveAll(const BitSet& other) {
    for (size_t i = 0; i < kWords; ++i) words[i] &= ~other.words[i];
  }
  bool IsEmpty() const {
    for (const uint32_t word : words) {
      if (word != 0) return false;
    }
    return true;
  }
  /// The smallest number of the set that is `from` or more; kSize when there is none.
  size_t Next(size_t from) const { return NextBit(words, from, kSize); }
};
