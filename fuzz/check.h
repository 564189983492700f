// What every fuzz target stands on: invariants that end the process, and output that is kept quiet.
#pragma once

/// Ends the process (SIGABRT, which a fuzzer takes for a crash) with a message on standard error
/// when an invariant does not hold. `invariant` is a text that says what should be true.
#define REQUIRE(condition, invariant)                                 \
  do {                                                                \
    if (!(condition)) FailRequirement(invariant, __FILE__, __LINE__); \
  } while (false)

/// What REQUIRE calls. The message goes to the standard error of the process's start, also when the
/// fuzzer has closed it since.
[[noreturn]] void FailRequirement(const char* invariant, const char* file, int line);
