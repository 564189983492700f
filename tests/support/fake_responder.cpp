#include "tests/support/fake_responder.h"

#include "base/responder.h"

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

uint32_t RegisterOneService(const char* serviceName, const char* serviceType,
                            const char* serviceDomain, const char* txt, int32_t txtLength,
                            uint32_t port) {
  fakeResponder.calls.push_back({true, serviceName, serviceType, serviceDomain, txt,
                                 txt != nullptr ? txt : "", txtLength, port});
  return fakeResponder.result;
}

uint32_t UnRegisterOneService(const char* serviceName, const char* serviceType,
                              const char* serviceDomain, const char* txt, int32_t txtLength,
                              uint32_t port) {
  fakeResponder.calls.push_back({false, serviceName, serviceType, serviceDomain, txt,
                                 txt != nullptr ? txt : "", txtLength, port});
  return fakeResponder.result;
}

bool IsTextRegistered(const char* /*txt*/) { return false; }
