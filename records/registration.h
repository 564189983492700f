// The exported operations that publish and withdraw one service (RFC 6763).
#pragma once

#include <cstdint>

/// Publishes a service: validates the parameters, adds the registry entry, sends probe and
/// announcement. `serviceName` is the instance name, 1 to 128 characters; `serviceType` reads like
/// "_ipp._tcp", at most 32; `serviceDomain` is ".local"; `txt` holds the TXT strings separated by
/// line feeds, or is null with `txtLength` 0; `port` is below 65536. The registry keeps the
/// reference `txt`, see ServiceRegistryUpdate. Returns 1, or 0 with a message. A service whose
/// packets could not be composed stays registered. Behind CloseRegistration nothing is registered
/// any more. Any thread that does not hold the registry mutex.
uint32_t RegisterOneService(const char* serviceName, const char* serviceType,
                            const char* serviceDomain, const char* txt, int32_t txtLength,
                            uint32_t port);

/// Refuses every registration from here on; one that is under way goes on. Any thread.
void CloseRegistration();

/// True while a registration is under way that began before CloseRegistration: its packets may not
/// have been handed over yet. Any thread.
bool IsRegistrationUnderWay();

/// Withdraws a service: validates the parameters as above, sends the goodbye, removes the registry
/// entry. In this order: the goodbye of a service that is not registered goes out all the same.
/// Returns 1, or 0 with a message. Any thread that does not hold the registry mutex.
uint32_t UnRegisterOneService(const char* serviceName, const char* serviceType,
                              const char* serviceDomain, const char* txt, int32_t txtLength,
                              uint32_t port);
