// Random delays.
#pragma once

#include <cstdint>

#include "standard/state.h"

/// Begins another sequence. Any seed will do.
void SeedRandom(Core& core, uint64_t seed);

/// A number from `low` to `high`, both included, each as likely as the next.
int64_t RandomBetween(Core& core, int64_t low, int64_t high);
