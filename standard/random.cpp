// Random delays: SplitMix64, a counter whose values are stirred.
#include "standard/random.h"

namespace {

constexpr uint64_t kIncrement = 0x9E3779B97F4A7C15;

uint32_t NextRandom(Core& core) {
  core.randomState += kIncrement;
  uint64_t bits = core.randomState;
  bits = (bits ^ bits >> 30) * 0xBF58476D1CE4E5B9;
  bits = (bits ^ bits >> 27) * 0x94D049BB133111EB;
  return static_cast<uint32_t>(bits >> 32 ^ bits);
}

}  // namespace

void SeedRandom(Core& core, uint64_t seed) { core.randomState = seed; }

int64_t RandomBetween(Core& core, int64_t low, int64_t high) {
  // The upper half of a product spreads 32 random bits over so short a range evenly enough.
  const uint64_t range = static_cast<uint64_t>(high - low + 1);
  return low + static_cast<int64_t>(NextRandom(core) * range >> 32);
}
