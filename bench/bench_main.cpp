// Timing of every operation in bench_support.h with Google Benchmark.
//
// Operations without a prepare step repeat their run back to back. Those
// with one (the fit steps) are timed call by call with a steady clock, the
// restore of their starting state left outside the measurement.
#include <benchmark/benchmark.h>

#include <chrono>

#include "bench_support.h"

namespace {

void TimeBackToBack(benchmark::State &state, const qvn_bench::Operation &op) {
  op.setup();
  qvn_bench::TakeLogLines();
  for (auto _ : state) op.run();
  // Lines per call, for the steps timed with the log on.
  const long lines = qvn_bench::TakeLogLines();
  if (lines > 0) {
    state.counters["lines"] =
        benchmark::Counter(static_cast<double>(lines), benchmark::Counter::kAvgIterations);
  }
}

void TimeCallByCall(benchmark::State &state, const qvn_bench::Operation &op) {
  using Clock = std::chrono::steady_clock;
  op.setup();
  for (auto _ : state) {
    op.prepare();
    const Clock::time_point start = Clock::now();
    op.run();
    const Clock::time_point end = Clock::now();
    state.SetIterationTime(std::chrono::duration<double>(end - start).count());
  }
}

}  // namespace

int main(int argc, char **argv) {
  for (const qvn_bench::Operation &op : qvn_bench::AllOperations()) {
    if (op.prepare == nullptr) {
      benchmark::RegisterBenchmark(op.name, TimeBackToBack, op);
    } else {
      benchmark::RegisterBenchmark(op.name, TimeCallByCall, op)->UseManualTime();
    }
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
