// Takes the place of the module that registers and unregisters one service.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// One call, with its texts as they were at that moment.
struct RegistrationCall {
  bool registers;
  std::string name;
  std::string type;
  std::string domain;
  const char* txt;
  std::string text;  ///< what `txt` referred to, empty for null
  int32_t txtLength;
  uint32_t port;
};

struct FakeRegistration {
  uint32_t result = 1;
  std::vector<RegistrationCall> calls;
};

extern FakeRegistration fakeRegistration;
