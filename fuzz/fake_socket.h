// Takes the place of the multicast socket and of the interface behind it.
#pragma once

#include <cstdint>

/// What UpdateHostIP finds: the interface's address in host byte order, and by bit which of its
/// calls (modulo 8) fail.
struct FakeInterface {
  uint32_t address;
  uint8_t failures;
  uint32_t calls;
};

extern FakeInterface fakeInterface;
