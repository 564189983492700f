// What a piece of work writes to standard output and standard error.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

struct Log {
  std::string out;
  std::string err;
};

/// Runs `work` and returns what was written meanwhile.
template <typename Work>
Log LogOf(Work work) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  work();
  fflush(stdout);
  Log log;
  log.out = testing::internal::GetCapturedStdout();
  log.err = testing::internal::GetCapturedStderr();
  return log;
}
