// Takes the place of a whole responder: what base/responder.h declares beside the words that the
// process shares.
#pragma once

#include <cstdint>
#include <functional>
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

struct FakeResponder {
  uint32_t initStatus = 0;
  std::string deviceName;
  std::function<void()> endReceive;     ///< EndReceive
  uint32_t result = 1;                  ///< of registrations and their opposite
  std::vector<RegistrationCall> calls;  ///< both kinds, in order; no text stays registered
};

extern FakeResponder fakeResponder;
