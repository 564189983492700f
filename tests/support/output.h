// What the code under test writes to standard output and standard error.
#pragma once

#include <gtest/gtest.h>

#include <string>

/// Captures both streams from here on until Stdout and Stderr have been taken.
class CapturedOutput {
 public:
  CapturedOutput() {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
  }
  ~CapturedOutput() {
    if (!outTaken) Stdout();
    if (!errTaken) Stderr();
  }
  CapturedOutput(const CapturedOutput&) = delete;
  CapturedOutput& operator=(const CapturedOutput&) = delete;

  /// What was written so far; ends the capture of that stream. Once each.
  std::string Stdout() {
    outTaken = true;
    return testing::internal::GetCapturedStdout();
  }
  std::string Stderr() {
    errTaken = true;
    return testing::internal::GetCapturedStderr();
  }

 private:
  bool outTaken = false;
  bool errTaken = false;
};

/// Both streams' text.
struct Log {
  std::string out;
  std::string err;
};

/// What `call` writes.
template <typename Call>
Log LogOf(Call call) {
  CapturedOutput output;
  call();
  return {output.Stdout(), output.Stderr()};
}

/// What `call` writes to standard output.
template <typename Call>
std::string StdoutOf(Call call) {
  return LogOf(call).out;
}
