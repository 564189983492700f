// The protocol, without any I/O: multicast DNS (RFC 6762) and DNS-SD (RFC 6763) for one host on one
// link. The caller hands in what happens (datagrams, the link's state, services that come and go,
// the time) and takes out what is to be sent and when to come back. Nothing here blocks, allocates
// or asks the system for anything. One thread at a time; all state is in Core, so that many of them
// can run in one process.
//
// Each call has the time at which it is made, in milliseconds of a clock that never goes back.
// After any call that hands something in, the caller takes datagrams until there is none and then
// sleeps until NextTurn:
//
//   HandleDatagram(core, datagram, now);
//   while (TakeDatagram(core, now, out)) Send(out);
//   SleepUntil(NextTurn(core));
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "standard/address.h"
#include "standard/clock.h"
#include "standard/datagram.h"
#include "standard/state.h"

/// Begins with no link and no service. `core` is all zero before. `hostName` is the name without
/// domain, 1 to 63 bytes; a longer one is cut. `randomSeed` is different on every host and at every
/// start.
void InitCore(Core& core, std::string_view hostName, uint64_t randomSeed);

/// The link is as `link` says from now on. A link that comes, comes back, or has another hardware
/// address starts all claims from the beginning; an address that comes or goes is announced.
void HandleLink(Core& core, const LinkState& link, int64_t now);

/// Takes a datagram that came in on the link.
void HandleDatagram(Core& core, const ReceivedDatagram& datagram, int64_t now);

/// Publishes a service: `instance` is UTF-8, cut to a label; `type` reads like "_ipp._tcp"; `txt`
/// holds the strings separated by line feeds and is copied. Services with one instance name belong
/// to one device: they are claimed and, on a conflict, renamed together. Returns false when the
/// service exists already, is not valid, or no place is left.
bool AddService(Core& core, std::string_view instance, std::string_view type, std::string_view txt,
                uint16_t port, int64_t now);

/// Withdraws the service that was added under these names, whatever it is called by now, with a
/// goodbye. Returns false when there is none.
bool RemoveService(Core& core, std::string_view instance, std::string_view type, int64_t now);

/// Withdraws everything: goodbyes go out twice, nothing is answered or claimed any more.
void BeginStop(Core& core, int64_t now);

/// True once everything that a stop has to send was taken.
bool IsStopped(const Core& core);

/// Takes the next datagram that is due at `now` into `out`. False when there is none: `out` is then
/// unspecified. All that is sent at one turn is taken with one time.
bool TakeDatagram(Core& core, int64_t now, OutgoingDatagram& out);

/// Says that the datagrams taken at `taken` had not all left before `now`: the intervals of their
/// records begin there.
void NoteLate(Core& core, int64_t taken, int64_t now);

/// When TakeDatagram has to be called next, at the latest; kNever when nothing is due.
int64_t NextTurn(const Core& core);

/// True once the host's name is claimed, at least once since InitCore.
bool HasHostName(const Core& core);

/// The host's name without domain, as it is on the link by now; zero-terminated.
const char* HostName(const Core& core);
