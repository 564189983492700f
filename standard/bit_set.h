// A set of small numbers: one bit each.
#pragma once

#include <cstddef>
#include <cstdint>

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
  size_t Next(size_t from) const {
    for (size_t i = from; i < kSize; ++i) {
      if (words[i / 32] == 0) {
        i |= 31;
      } else if (Has(i)) {
        return i;
      }
    }
    return kSize;
  }
};
