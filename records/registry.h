// The service registry: every service that is published, in the order of registration.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "records/state.h"

/// The longest texts of a service beside its name, in characters.
constexpr size_t kServiceTypeMax = 32;
constexpr size_t kServiceDomainMax = 32;
/// TCP ports are below this.
constexpr uint32_t kPortLimit = 65536;

/// One registered service. Heap block, owned by the registry.
struct ServiceEntry {
  ServiceEntry* previous;  ///< the entry before this one, null for the first
  ServiceEntry* next;      ///< the entry after this one, null for the last
  char serviceName[kServiceNameSize];
  char serviceType[kServiceTypeMax + 1];
  char serviceDomain[kServiceDomainMax + 1];
  const char* txt;    ///< the registrar's text, not a copy; may be null
  int32_t txtLength;  ///< its length as the registrar gave it
  uint32_t port;
};

/// Operations of ServiceRegistryUpdate.
constexpr uint32_t SERVICE_REMOVE = 0;
constexpr uint32_t SERVICE_ADD = 1;

/// Holds the registry mutex for as long as it lives. Once CloseRegistryIfEmpty has closed it the
/// registry stays empty and the mutex is no longer taken, because it may be gone.
class SCOPED_CAPABILITY RegistryLock {
 public:
  /// Waits for the mutex and takes it, unless the registry is closed.
  RegistryLock() ACQUIRE(responderState.registryMutex);
  ~RegistryLock() RELEASE();
  RegistryLock(const RegistryLock&) = delete;
  RegistryLock& operator=(const RegistryLock&) = delete;

  /// False once the registry is closed: it is empty then and takes no entry.
  bool IsOpen() const { return open; }

 private:
  bool open;
};

/// Returns 1 if an entry matches the key (name, type, domain), else 0. An entry matches when each
/// of its texts begins with the key's: the prefix is enough (docs/behaviour.md). Takes the registry
/// mutex; any thread that does not hold it.
uint32_t ServiceLookup(const char* name, const char* type, const char* domain);

/// SERVICE_ADD appends a service, SERVICE_REMOVE takes out the first one that matches the key; any
/// other operation does nothing and succeeds. Returns 1, or 0 with a message on standard output
/// when a match exists already, none exists, or memory ran out. Longer texts are cut. The registry
/// keeps `txt` as it is: the caller keeps it alive and unchanged while an entry refers to it (see
/// IsTextRegistered). Two threads that add the same key at the same time may both succeed. Takes
/// the registry mutex; any thread that does not hold it.
uint32_t ServiceRegistryUpdate(uint32_t operation, const char* name, const char* type,
                               const char* domain, const char* txt, int32_t txtLength,
                               uint32_t port);

/// Returns 1 if a service with these parameters may be registered, else 0: name of 1 to 128
/// characters, type like "_ipp._tcp" of at most 32, domain ".local", no negative length, no text
/// with the length 0, port below 65536. Lengths and the domain are refused with a message. Any
/// thread.
uint32_t ValidateServiceParams(const char* name, const char* type, const char* domain,
                               const char* txt, int32_t txtLength, uint32_t port);

/// Copies the first entry, its key above all, to `copy` and returns false; or, when there is none,
/// closes the registry under the same lock, so that nothing is added any more, and returns true.
/// Takes the registry mutex; responder thread.
bool CloseRegistryIfEmpty(ServiceEntry& copy);

/// Destroys the registry mutex once the last thread that was about to take it has gone. The
/// registry is closed. Responder thread.
void DestroyRegistry();
