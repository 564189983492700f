// What is true of the registry at any time.
#pragma once

#include <vector>

#include "records/registry.h"

/// Requires that the registry is a well-linked list of entries whose texts end inside their fields
/// and refer to living texts. Returns copies of the entries, in their order.
std::vector<ServiceEntry> RequireSoundRegistry();

/// Takes every entry out.
void EmptyRegistry();
