// A gate that threads pass until it is closed; those that are inside are counted.
#pragma once

#include <atomic>
#include <cstdint>

/// Lets threads in until it is closed and tells whether any is still inside. Whoever closes it and
/// then finds it empty knows that nobody is inside and that nobody will be: a thread that was not
/// counted has seen it closed. Takes no lock. Any thread. `Word` is an atomic of 32 bits; Gate,
/// below, is the one in use.
template <typename Word>
class BasicGate {
 public:
  constexpr BasicGate() = default;
  BasicGate(const BasicGate&) = delete;
  BasicGate& operator=(const BasicGate&) = delete;

  /// Steps inside, unless the gate is closed. On true the caller leaves later, on any thread.
  bool Enter() {
    // Counting and looking are one operation: between the two somebody else could close the gate
    // and find it empty.
    if ((word.fetch_add(1) & kClosed) == 0) return true;
    Leave();
    return false;
  }
  /// Steps outside. Whoever then finds the gate empty sees all that was done inside.
  void Leave() { word.fetch_sub(1); }
  /// Nobody enters any more, for good. Those inside stay until they leave.
  void Close() { word.fetch_or(kClosed); }
  /// True once nobody enters any more.
  bool IsClosed() const { return (word.load() & kClosed) != 0; }
  /// True when nobody is inside.
  bool IsEmpty() const { return (word.load() & ~kClosed) == 0; }

 private:
  static constexpr uint32_t kClosed = uint32_t{1} << 31;

  // The threads inside, and kClosed once it is closed.
  Word word{0};
};

using Gate = BasicGate<std::atomic<uint32_t>>;

/// Is inside a gate for as long as it lives, if it was let in.
class GatePass {
 public:
  /// Tries to enter `gate`, which outlives this object.
  explicit GatePass(Gate& gate) : passed(gate.Enter() ? &gate : nullptr) {}
  ~GatePass() {
    if (passed != nullptr) passed->Leave();
  }
  GatePass(const GatePass&) = delete;
  GatePass& operator=(const GatePass&) = delete;

  /// False when the gate was closed.
  bool IsInside() const { return passed != nullptr; }

 private:
  Gate* passed;
};
