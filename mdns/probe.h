// Probing the host name on the link before it is used.
#pragma once

#include <cstdint>
#include <string_view>

#include "mdns/state.h"
#include "records/compose.h"
#include "records/message.h"

/// Packets without a conflict that a probing cycle passes over; the next one ends it.
constexpr uint32_t kIgnoredPacketsMax = 11;
/// Conflict numbers run from 1 to this and then start again at 1.
constexpr int32_t kConflictNumberMax = 999;

/// Argument and result of one probing pass. Owned by the responder thread, zero-filled over its
/// whole extent before use.
struct ProbeRecord {
  char name[kDeviceNameSize];  ///< the name being probed, without domain; rewritten on a conflict
  uint32_t retry;              ///< set to 1 when the name was changed
  int32_t socket;              ///< the multicast socket
  uint32_t slot;               ///< interface slot, selects the own address
};

/// Composes the probe for `name`: one plain A question, without the authority section of RFC 6762,
/// section 8.2, since the name alone decides (docs/behaviour.md).
void ComposeHostProbe(Packet& packet, std::string_view name);

/// True when another host's message claims or asks for `name`: when the larger of the name's length
/// and the length of the first name's first label says how many bytes of the name equal those of
/// the label, exactly. Anything else of the message does not count. `message` is what was received.
bool IsNameConflict(const MessageReader& message, const char (&name)[kDeviceNameSize]);

/// Puts `deviceName`, '-' and `number` into `name`. Leaves `name` as it is when that would be
/// longer than a device name may be.
void SetNumberedName(char (&name)[kDeviceNameSize], std::string_view deviceName, int32_t number);

/// Thread body of one probing pass; `argument` is a ProbeRecord. Sends the probe and listens, again
/// and again with a new number after the device name until no other host has the name or a stop is
/// asked for. Runs alone on the socket.
void* MDNS_CheckName(void* argument);
