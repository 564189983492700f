// Words and texts that one thread writes while others read them, without a lock.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string_view>

/// A 32-bit word that threads share. Get and Set are single loads and stores; what was written
/// before a Set is visible to whoever Gets its value. Safe in a signal handler.
template <typename T>
class SharedWord {
  static_assert(sizeof(T) == sizeof(uint32_t), "shared words are 32 bits wide");
  // Get and Set need no more. is_always_lock_free asks for an exchange too, which a CPU below ARMv6
  // does not have.
  static_assert(sizeof(std::atomic<T>) == sizeof(T) && sizeof(T) <= sizeof(void*),
                "a shared word must not need a lock");

 public:
  constexpr explicit SharedWord(T initial) : word(initial) {}
  SharedWord(const SharedWord&) = delete;
  SharedWord& operator=(const SharedWord&) = delete;

  /// The word's current value. Any thread.
  T Get() const { return word.load(std::memory_order_acquire); }
  /// Replaces the value. Any thread; which one writes is said where the word is declared.
  void Set(T value) { word.store(value, std::memory_order_release); }

 private:
  std::atomic<T> word;
};

/// A flag or a status word.
using SharedFlag = SharedWord<uint32_t>;

/// A text of at most kMaxLength characters that one thread replaces while others copy it. A reader
/// gets a text as it was set, never a mixture of two; it takes no lock and only looks again when a
/// Set was under way.
class SharedText {
 public:
  /// The longest text that is held; longer ones are cut.
  static constexpr size_t kMaxLength = 64;

  constexpr SharedText() = default;
  SharedText(const SharedText&) = delete;
  SharedText& operator=(const SharedText&) = delete;

  /// Replaces the text. One writing thread at a time.
  void Set(std::string_view text);
  /// Copies the first min(size, length) characters into `buffer`, without a terminator, and returns
  /// that count. Any thread.
  size_t Copy(char* buffer, size_t size) const;

 private:
  static constexpr size_t kWords = kMaxLength / sizeof(uint32_t);

  // Odd while a Set is under way; a copy counts only if this was even and did not move.
  std::atomic<uint32_t> version{0};
  std::atomic<uint32_t> words[kWords] = {};
};
