// What other hosts' responses mean for this one: conflicts (RFC 6762, sections 8.1 and 9), answers
// that somebody else gave (section 7.4) and own records that somebody else lets expire
// (section 6.6).
#pragma once

#include <cstdint>

#include "standard/datagram.h"
#include "standard/state.h"

/// Takes a well-formed response. `isFromSelf`: another program on this host sent it.
void HandleResponse(Core& core, const ReceivedDatagram& response, bool isFromSelf, int64_t now);
