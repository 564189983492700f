// Answering queries (RFC 6762, sections 5 to 7): which records a query is answered with, when, and
// whether to all or to the asker alone.
#pragma once

#include <cstdint>

#include "standard/datagram.h"
#include "standard/state.h"

/// RFC 6762, section 6, in milliseconds: the random delay of answers that others may give too.
constexpr int64_t kSharedDelayMin = 20;
constexpr int64_t kSharedDelayMax = 120;

/// Sections 6 and 7.2: the random delay while more known answers are to come. However many follow,
/// the questions are answered in the end.
constexpr int64_t kTruncatedDelayMin = 400;
constexpr int64_t kTruncatedDelayMax = 500;
constexpr int64_t kTruncatedWaitMax = 5000;

/// Takes a query that was answered before and is to be answered likewise. False when it is none,
/// and nothing has changed.
bool HandleRepeatedQuery(Core& core, const ReceivedDatagram& query);

/// What is repeated may not be true any more.
void ForgetRepeated(Core& core);

/// Takes a well-formed query. `isFromSelf`: another program on this host sent it.
void HandleQuery(Core& core, const ReceivedDatagram& query, bool isFromSelf, int64_t now);
