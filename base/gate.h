// A gate that threads pass until it is closed; those that are inside are counted.
#pragma once

#include <atomic>
#include <cstdint>

/// Lets threads in until it is closed and tells whether any is still inside. Whoever closes it and
/// then finds it empty knows that nobody is inside and that nobody will be: a thread that was not
/// counted has seen it closed. Takes no lock. Any thread.
class Gate {
 public:
  constexpr Gate() = default;
  Gate(const Gate&) = delete;
  Gate& operator=(const Gate&) = delete;

  /// Steps inside, unless the gate is closed. On true the caller leaves later, on any thread.
  bool Enter() {
    inside.fetch_add(1);
    if (closed.load() == 0) return true;
    Leave();
    return false;
  }
  /// Steps outside. What was done inside has happened before whoever finds the gate empty.
  void Leave() { inside.fetch_sub(1); }
  /// Nobody enters any more, for good. Those inside stay until they leave.
  void Close() { closed.store(1); }
  /// True once nobody enters any more.
  bool IsClosed() const { return closed.load() != 0; }
  /// True when nobody is inside.
  bool IsEmpty() const { return inside.load() == 0; }

 private:
  // Sequentially consistent, both: entering counts first and then looks, closing marks first and
  // then counts, so at least one of them sees the other.
  std::atomic<uint32_t> inside{0};
  std::atomic<uint32_t> closed{0};
};

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
