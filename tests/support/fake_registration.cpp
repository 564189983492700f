#include "tests/support/fake_registration.h"

#include "base/responder.h"

FakeRegistration fakeRegistration;

uint32_t RegisterOneService(const char* serviceName, const char* serviceType,
                            const char* serviceDomain, const char* txt, int32_t txtLength,
                            uint32_t port) {
  fakeRegistration.calls.push_back({true, serviceName, serviceType, serviceDomain, txt,
                                    txt != nullptr ? txt : "", txtLength, port});
  return fakeRegistration.result;
}

uint32_t UnRegisterOneService(const char* serviceName, const char* serviceType,
                              const char* serviceDomain, const char* txt, int32_t txtLength,
                              uint32_t port) {
  fakeRegistration.calls.push_back({false, serviceName, serviceType, serviceDomain, txt,
                                    txt != nullptr ? txt : "", txtLength, port});
  return fakeRegistration.result;
}
