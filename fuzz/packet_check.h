// What is true of every packet, whatever it is about.
#pragma once

#include <cstdint>
#include <string_view>

#include "fuzz/walker.h"

/// Requires that every byte of `packet` belongs to a record that its header counts, that each
/// record's data has the form of its type, and that the rest of the header is as it always is.
/// Returns the packet as the walker reads it.
WireMessage RequireSoundPacket(std::string_view packet);

/// Requires that `data` has the form of a record's data of the type.
void RequireSoundData(int32_t type, std::string_view data);
