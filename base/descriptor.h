// A file descriptor that closes itself.
#pragma once

#include <unistd.h>

/// Owns one open file descriptor (or -1, which stands for none) and closes it when it goes.
class Descriptor {
 public:
  /// Takes over `descriptor`, the result of open(2) or socket(2).
  explicit Descriptor(int descriptor) : value(descriptor) {}
  ~Descriptor() { Close(); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  /// True when a descriptor is held.
  bool IsOpen() const { return value >= 0; }
  /// The descriptor for a system call; stays owned by this object. -1 when none is held.
  int Get() const { return value; }
  /// Closes the descriptor now, if one is held. errno is undefined afterwards.
  void Close() {
    if (value >= 0) {
      close(value);
      value = -1;
    }
  }

 private:
  int value;
};
