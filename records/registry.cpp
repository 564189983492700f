// The service registry.
#include "records/registry.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "base/gate.h"
#include "base/log.h"
#include "base/text.h"

namespace {

// Threads that hold the mutex or are about to take it are inside.
Gate registryUsers;
constexpr unsigned kDrainPauseMicroseconds = 1000;

bool Matches(const ServiceEntry& entry, const char* name, const char* type, const char* domain) {
  return strncmp(entry.serviceName, name, strlen(name)) == 0 &&
         strncmp(entry.serviceType, type, strlen(type)) == 0 &&
         strncmp(entry.serviceDomain, domain, strlen(domain)) == 0;
}

ServiceEntry* FindEntry(const char* name, const char* type, const char* domain)
    REQUIRES(responderState.registryMutex) {
  ServiceEntry* entry = responderState.registryHead;
  while (entry != nullptr && !Matches(*entry, name, type, domain)) entry = entry->next;
  return entry;
}

void Append(ServiceEntry* entry) REQUIRES(responderState.registryMutex) {
  ServiceEntry** link = &responderState.registryHead;
  while (*link != nullptr) {
    entry->previous = *link;
    link = &(*link)->next;
  }
  *link = entry;
}

void Unlink(ServiceEntry* entry) REQUIRES(responderState.registryMutex) {
  if (entry->previous != nullptr) {
    entry->previous->next = entry->next;
  } else {
    responderState.registryHead = entry->next;
  }
  if (entry->next != nullptr) entry->next->previous = entry->previous;
}

uint32_t AddService(const char* name, const char* type, const char* domain, const char* txt,
                    int32_t txtLength, uint32_t port) {
  if (ServiceLookup(name, type, domain) != 0) {
    LogLine({"[Bonjour] this service: ", name, " ", type, " ", domain, " is already registered"});
    return 0;
  }
  std::unique_ptr<ServiceEntry, FreeBlock> entry(
      static_cast<ServiceEntry*>(calloc(1, sizeof(ServiceEntry))));
  if (entry == nullptr) {
    LogNoMemory();
    return 0;
  }
  CopyText(entry->serviceName, name);
  CopyText(entry->serviceType, type);
  CopyText(entry->serviceDomain, domain);
  entry->txt = txt;
  entry->txtLength = txtLength;
  entry->port = port;

  const RegistryLock lock;
  if (!lock.IsOpen()) return 0;
  Append(entry.release());
  return 1;
}

uint32_t RemoveService(const char* name, const char* type, const char* domain) {
  if (ServiceLookup(name, type, domain) == 0) {
    LogLine({"[Bonjour] this service: ", name, " ", type, " ", domain, " is not registered"});
    return 0;
  }
  const RegistryLock lock;
  ServiceEntry* entry = FindEntry(name, type, domain);
  if (entry == nullptr) return 0;
  Unlink(entry);
  free(entry);
  return 1;
}

// A type reads like "_ipp._tcp": '_', at least one character, '.', '_'. What follows is free.
bool IsServiceType(std::string_view type) {
  if (type.empty() || type.front() != '_') return false;
  const size_t dot = type.find('.');
  if (dot == std::string_view::npos || dot < 2) return false;
  return dot + 1 < type.size() && type[dot + 1] == '_';
}

}  // namespace

// The mutex is taken on one branch only, which the analysis can't express. On the other the
// registry is closed: empty for good, with nothing left to guard.
RegistryLock::RegistryLock() NO_LOCK_ANALYSIS : open(registryUsers.Enter()) {
  if (!open) return;
  responderState.registryMutex.Lock();
  // It may have been closed while this thread waited for the mutex.
  if (!registryUsers.IsClosed()) return;
  open = false;
  responderState.registryMutex.Unlock();
  registryUsers.Leave();
}

// As above.
RegistryLock::~RegistryLock() NO_LOCK_ANALYSIS {
  if (!open) return;
  responderState.registryMutex.Unlock();
  registryUsers.Leave();
}

uint32_t ServiceLookup(const char* name, const char* type, const char* domain) {
  const RegistryLock lock;
  return FindEntry(name, type, domain) != nullptr ? 1 : 0;
}

uint32_t ServiceRegistryUpdate(uint32_t operation, const char* name, const char* type,
                               const char* domain, const char* txt, int32_t txtLength,
                               uint32_t port) {
  switch (operation) {
    case SERVICE_ADD:
      return AddService(name, type, domain, txt, txtLength, port);
    case SERVICE_REMOVE:
      return RemoveService(name, type, domain);
    default:
      return 1;
  }
}

uint32_t ValidateServiceParams(const char* name, const char* type, const char* domain,
                               const char* txt, int32_t txtLength, uint32_t port) {
  const size_t nameLength = strlen(name);
  if (nameLength == 0 || nameLength > kServiceNameMax) {
    LogLine("[Bonjour] serviceName Length");
    return 0;
  }
  if (strlen(type) > kServiceTypeMax) {
    LogLine("[Bonjour] SRVTYPE_NAME_MAX Length");
    return 0;
  }
  if (strlen(domain) > kServiceDomainMax) {
    LogLine("[Bonjour] SRVTYPE_DOMAIN_MAX Length");
    return 0;
  }
  if (!IsServiceType(type)) return 0;
  if (strcmp(domain, kLocalDomain) != 0) {
    LogLine("[Bonjour] sorry, we now only support '.local' service domain");
    return 0;
  }
  if (txtLength < 0 || (txtLength == 0 && txt != nullptr)) return 0;
  return port < kPortLimit ? 1 : 0;
}

bool IsTextRegistered(const char* txt) {
  const RegistryLock lock;
  const ServiceEntry* entry = responderState.registryHead;
  while (entry != nullptr && entry->txt != txt) entry = entry->next;
  return entry != nullptr;
}

bool AreTextsCopied() { return false; }

bool CloseRegistryIfEmpty(ServiceEntry& copy) {
  const RegistryLock lock;
  if (responderState.registryHead != nullptr) {
    copy = *responderState.registryHead;
    return false;
  }
  registryUsers.Close();
  return true;
}

void DestroyRegistry() {
  while (!registryUsers.IsEmpty()) usleep(kDrainPauseMicroseconds);
  responderState.registryMutex.Destroy();
}
