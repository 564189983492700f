// In place of a whole responder: what base/responder.h declares beside the words that the process
// shares. Included once in a program.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "base/responder.h"

struct RegistrationCall {
  bool operator==(const RegistrationCall&) const = default;

  bool registers;
  std::string name;
  std::string type;
  std::string domain;
  const char* txt;
  int32_t txtLength;
  uint32_t port;
};

struct FakeResponder {
  uint32_t initStatus = 0;
  std::string deviceName;
  std::function<void()> endReceive;
  uint32_t result = 1;                  ///< of registrations and their opposite
  std::vector<RegistrationCall> calls;  ///< both kinds, in order; no text stays registered
};

FakeResponder fakeResponder;

void* BonjourServiceInit(void* /*argument*/) { return nullptr; }

void EndReceive() {
  if (fakeResponder.endReceive) fakeResponder.endReceive();
}

uint32_t GetBonjourInitStatus() { return fakeResponder.initStatus; }

char* GetDeviceName(char* buffer, size_t size) {
  fakeResponder.deviceName.copy(buffer, size);
  return buffer;
}

uint32_t RegisterOneService(const char* name, const char* type, const char* domain, const char* txt,
                            int32_t txtLength, uint32_t port) {
  fakeResponder.calls.push_back({true, name, type, domain, txt, txtLength, port});
  return fakeResponder.result;
}

uint32_t UnRegisterOneService(const char* name, const char* type, const char* domain,
                              const char* txt, int32_t txtLength, uint32_t port) {
  fakeResponder.calls.push_back({false, name, type, domain, txt, txtLength, port});
  return fakeResponder.result;
}

bool IsTextRegistered(const char* /*txt*/) { return false; }

bool AreTextsCopied() { return false; }
