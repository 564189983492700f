// The packets of a service's registration and withdrawal: probe, announcement and goodbye.
#pragma once

#include <cstdint>

#include "records/compose.h"

/// Composes the probe that claims the host name and the instance name (RFC 6762, section 8.1): two
/// ANY questions that want unicast responses, and the A and SRV records proposed in the authority
/// section.
void ComposeServiceProbe(Packet& packet, const ServiceRecords& service);

/// Composes the withdrawal of the service's PTR records (RFC 6762, section 10.1). The SRV, TXT and
/// A records are left to expire: without the PTR record nobody finds them. Uses the type name, the
/// instance name and the subtype.
void ComposeServiceGoodbye(Packet& packet, const ServiceRecords& service);

/// Composes and sends the probe and the announcement of a service, the second without waiting for
/// an outcome of the first. While the bridge is not connected nothing is sent. `txt` is used when
/// `txtLength` is not 0, up to its terminator; null counts as empty. Returns 1, or 0 with a message
/// when memory ran out. Any thread.
uint32_t PacketsComposeAdd(const char* deviceName, const char* serviceName, const char* serviceType,
                           const char* domain, const char* txt, int32_t txtLength, uint32_t port);

/// Composes and sends the goodbye of a service, whether or not it is registered. While the bridge
/// is not connected nothing is sent. Returns 1, or 0 with a message when memory ran out. Any
/// thread.
uint32_t PacketsComposeRemove(const char* serviceName, const char* serviceType, const char* domain);
