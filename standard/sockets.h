// The two sockets on the link, one an address family: opening, groups, receiving and sending.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "standard/address.h"
#include "standard/core.h"

/// The sockets of one link; -1 stands for none.
struct Sockets {
  int descriptors[kFamilies] = {-1, -1};
  int32_t index = 0;               ///< of the interface they are bound to
  bool hasJoined[kFamilies] = {};  ///< member of the family's group
};

/// What went wrong first: the text of a log line, null when nothing did, and the error.
struct SocketFailure {
  const char* text;
  int error;
};

/// Opens the sockets that are not open yet: bound to the multicast DNS port and to the interface
/// `name`, whose number is `index`; hop limit 255 on everything (RFC 6762, section 11), looped back
/// to programs of this host (section 15). No call waits on them. A family that the kernel does not
/// know is no failure.
SocketFailure OpenSockets(Sockets& sockets, std::string_view name, int32_t index);

/// Joins each group (RFC 6762, section 3) on the interface where that has not been done. That a
/// family refuses of which `link` has no address is no failure.
SocketFailure JoinGroups(Sockets& sockets, const LinkState& link);

/// Leaves the groups, so that JoinGroups joins them all again.
void LeaveGroups(Sockets& sockets);

/// Closes what is open.
void CloseSockets(Sockets& sockets);

/// Takes a datagram that waits on the family's socket into `buffer`. False when none waits, `taken`
/// is then unspecified. One that is not for this host on this link comes out with length 0.
bool ReceiveDatagram(const Sockets& sockets, Family family, const LinkState& link,
                     uint8_t (&buffer)[kDatagramMax], ReceivedDatagram& taken);

/// Sends a datagram. What can't be sent is lost, as it may be on any link.
void SendDatagram(const Sockets& sockets, const OutgoingDatagram& datagram);
