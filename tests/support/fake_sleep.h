// Stands for sleep(3): returns at once and lets the test go on with its story.
#pragma once

#include <functional>

struct FakeSleep {
  std::function<void(unsigned seconds)> hook;  ///< called for every pause
};

extern FakeSleep fakeSleep;
