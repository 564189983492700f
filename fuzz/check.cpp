// Invariants that end the process, and output that is kept quiet.
#include "fuzz/check.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace {

int reportDescriptor = STDERR_FILENO;

}  // namespace

void FailRequirement(const char* invariant, const char* file, int line) {
  dprintf(reportDescriptor, "%s:%d: does not hold: %s\n", file, line, invariant);
  abort();
}

// Read by AddressSanitizer at start, where it is linked: blocks that were freed are kept for a
// whole input but not for thousands, which costs half of the speed.
extern "C" const char* __asan_default_options();
extern "C" const char* __asan_default_options() {
  return "quarantine_size_mb=16:malloc_context_size=8";
}

// Called once by the fuzzer or by the replay before the first input. The log lines of the code
// under test would be most of the work.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  reportDescriptor = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  if (freopen("/dev/null", "w", stdout) == nullptr) abort();
  return 0;
}
