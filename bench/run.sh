#!/bin/sh
# Builds the library and the benchmarks in Release and times every operation
# with Google Benchmark: the median of several repetitions, printed with the
# CPU model and the load of the machine at the start (figures from a busy
# machine are not worth comparing; bench/callgrind.sh counts instructions
# instead). Extra arguments go to the benchmark binary, for example
#
#   bench/run.sh                                   # everything
#   bench/run.sh --benchmark_filter='fusion_step'  # a subset
#
# Quote the CPU column: on a loaded machine the Time (wall-clock) column runs
# up to 2.5 times higher. The steps timed with the log on (log_dropped,
# log_written) also report the log lines per call.
#
# The build tree is build-bench-release (QVN_BENCH_BUILD_DIR overrides it).
# Google Benchmark's warning that the library "was built as DEBUG" is about
# Debian's libbenchmark package itself, not about libqvnlib (built Release).
set -eu

ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD=${QVN_BENCH_BUILD_DIR:-$ROOT/build-bench-release}
REPETITIONS=${QVN_BENCH_REPETITIONS:-7}

cmake -S "$ROOT" -B "$BUILD" -DCMAKE_BUILD_TYPE=Release -DQVN_BUILD_BENCH=ON \
  -DQVN_BUILD_TESTS=OFF -DQVN_BUILD_TOOLS=OFF >/dev/null
cmake --build "$BUILD" -j2 --target qvn_bench >/dev/null

cpu_field() { sed -n "s/^$1[[:space:]]*: //p" /proc/cpuinfo | head -n 1; }
echo "CPU: $(cpu_field 'model name') (family $(cpu_field 'cpu family'), model $(cpu_field model)," \
  "stepping $(cpu_field stepping), $(cpu_field 'cpu MHz') MHz, $(nproc) logical CPUs)"
echo "Load at start: $(cut -d ' ' -f 1-3 /proc/loadavg)"
echo "Compiler: $(${CXX:-c++} --version | head -n 1)"
exec "$BUILD/bench/qvn_bench" --benchmark_repetitions="$REPETITIONS" \
  --benchmark_display_aggregates_only=true --benchmark_min_time=0.2 "$@"
