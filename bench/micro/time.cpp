// Times every case, and the least that it could cost.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <iostream>

#include "bench/micro/cases.h"

namespace {

void RunCase(benchmark::State& state, const Case& one) {
  one.prepare(one.size);
  size_t moved = 0;
  // NOLINTNEXTLINE(clang-analyzer-deadcode.DeadStores): the library's way to write the loop
  for (auto _ : state) {
    moved = one.run();
    benchmark::DoNotOptimize(moved);
    benchmark::ClobberMemory();
  }
}

void RunCaseFloor(benchmark::State& state, const Case& one) {
  one.prepare(one.size);
  const size_t moved = one.run();
  // NOLINTNEXTLINE(clang-analyzer-deadcode.DeadStores): as above
  for (auto _ : state) {
    RunFloor(one.zeroed, moved);
    benchmark::ClobberMemory();
  }
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  const std::vector<Case> cases = AllCases();
  for (const Case& one : cases) {
    benchmark::RegisterBenchmark(one.name.c_str(), RunCase, one);
    benchmark::RegisterBenchmark((one.name + "/floor").c_str(), RunCaseFloor, one);
  }
  // Formatting the daemon's lines is measured, writing them is not; the figures go to standard
  // error.
  if (freopen("/dev/null", "w", stdout) == nullptr) return 1;
  benchmark::ConsoleReporter reporter(benchmark::ConsoleReporter::OO_Tabular);
  reporter.SetOutputStream(&std::cerr);
  reporter.SetErrorStream(&std::cerr);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}
