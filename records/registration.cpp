// The exported operations that publish and withdraw one service.
#include "records/registration.h"

#include "base/gate.h"
#include "base/log.h"
#include "records/packets.h"
#include "records/registry.h"

namespace {

// The registrations under way are inside. At the stop a service's goodbye must come after its
// announcement, and no service may come after the goodbyes.
Gate registrations;

bool AreParamsValid(const char* name, const char* type, const char* domain, const char* txt,
                    int32_t txtLength, uint32_t port) {
  if (ValidateServiceParams(name, type, domain, txt, txtLength, port) != 0) return true;
  LogLine("[Bonjour] Input parameter error");
  return false;
}

}  // namespace

uint32_t RegisterOneService(const char* serviceName, const char* serviceType,
                            const char* serviceDomain, const char* txt, int32_t txtLength,
                            uint32_t port) {
  if (!AreParamsValid(serviceName, serviceType, serviceDomain, txt, txtLength, port)) return 0;
  const GatePass registration(registrations);
  if (!registration.IsInside() || ServiceRegistryUpdate(SERVICE_ADD, serviceName, serviceType,
                                                        serviceDomain, txt, txtLength, port) == 0) {
    LogLine("[Bonjour] SERVICE_ADD error");
    return 0;
  }
  if (PacketsComposeAdd(CurrentDeviceName().text, serviceName, serviceType, serviceDomain, txt,
                        txtLength, port) == 0) {
    LogLine("[Bonjour] PacketsComposeAdd error");
    return 0;
  }
  return 1;
}

void CloseRegistration() { registrations.Close(); }

bool IsRegistrationUnderWay() { return !registrations.IsEmpty(); }

uint32_t UnRegisterOneService(const char* serviceName, const char* serviceType,
                              const char* serviceDomain, const char* txt, int32_t txtLength,
                              uint32_t port) {
  if (!AreParamsValid(serviceName, serviceType, serviceDomain, txt, txtLength, port)) return 0;
  if (PacketsComposeRemove(serviceName, serviceType, serviceDomain) == 0) {
    LogLine("[Bonjour] PacketsComposeRemove error");
    return 0;
  }
  if (ServiceRegistryUpdate(SERVICE_REMOVE, serviceName, serviceType, serviceDomain, txt, txtLength,
                            port) == 0) {
    LogLine("[Bonjour] SERVICE_REMOVE error");
    return 0;
  }
  return 1;
}
