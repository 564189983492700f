// Takes the place of the module that turns a port and a kind into a registration.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// One call, with the port's instance name as it was at that moment.
struct ServiceCall {
  int32_t port;
  uint32_t action;
  int32_t kind;
  char* txt;
  bool txtIsZeroed;  ///< the buffer held nothing but zeros
  std::string name;
};

struct FakeServices {
  uint32_t result = 1;
  std::vector<ServiceCall> calls;
};

extern FakeServices fakeServices;
