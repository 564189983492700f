// Runs every case several times under callgrind, which writes the instructions of each to a file of
// its own with the case's name in it. Prints what is counted in bytes on standard error.
#include <valgrind/callgrind.h>

#include <cstdio>

#include "bench/micro/cases.h"

namespace {

constexpr int kRuns = 10;

}  // namespace

int main() {
  if (freopen("/dev/null", "w", stdout) == nullptr) return 1;
  fprintf(stderr, "runs\t%d\n", kRuns);
  fprintf(stderr, "heap bytes per service\t%zu\n", HeapBytesPerService());
  for (const Case& one : AllCases()) {
    one.prepare(one.size);
    // The first runs resolve symbols and allocate heap blocks.
    for (int i = 0; i < kRuns; ++i) one.run();
    CALLGRIND_START_INSTRUMENTATION;
    CALLGRIND_ZERO_STATS;
    for (int i = 0; i < kRuns; ++i) one.run();
    CALLGRIND_DUMP_STATS_AT(one.name.c_str());
    CALLGRIND_STOP_INSTRUMENTATION;
  }
  return 0;
}
