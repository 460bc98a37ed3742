#!/usr/bin/env bash
# Builds the libFuzzer harnesses (clang, ASan + UBSan) in their own build
# directory, replays the committed regressions, then runs each harness for
# SECONDS (the recovery harness at most 30) on a scratch copy of its committed
# seed corpus. Exits non-zero on
# any finding; the crashing inputs are kept under <build>/findings/.
#
#   fuzz/run_fuzzers.sh [SECONDS]        # default 60 per harness (the tools'
#                                        # parsers: at most 30)
#   QVN_FUZZ_BUILD_DIR=build-fuzz        # where to build (default build-fuzz)
#   QVN_FUZZ_RUNS=N                      # stop each harness after N inputs instead
#
# A finding is reproduced by running the harness on the file alone:
#   build-fuzz/fuzz/host_calls_fuzzer build-fuzz/findings/host_calls_fuzzer-crash-...
set -euo pipefail
seconds="${1:-60}"
cd "$(dirname "$0")/.."
build="${QVN_FUZZ_BUILD_DIR:-build-fuzz}"
harnesses=(host_calls_fuzzer fits_fuzzer recovery_fuzzer tool_parsers_fuzzer)

CC=clang CXX=clang++ cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DQVN_BUILD_FUZZ=ON -DQVN_BUILD_TESTS=OFF -DQVN_BUILD_TOOLS=OFF -DQVN_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" -j"$(nproc)" --target "${harnesses[@]}"

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
mkdir -p "$build/findings"
export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=0}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"

status=0
for h in "${harnesses[@]}"; do
  bin="$build/fuzz/$h"
  shopt -s nullglob
  regressions=(fuzz/regressions/"$h"/*)
  shopt -u nullglob
  if [ "${#regressions[@]}" -gt 0 ]; then
    echo "== $h: replaying ${#regressions[@]} regression input(s)"
    "$bin" -runs=1 "${regressions[@]}" || { echo "FAIL: $h regression" >&2; status=1; }
  fi

  mkdir -p "$scratch/$h"
  cp fuzz/corpus/"$h"/* "$scratch/$h/"
  limit=(-max_total_time="$seconds")
  # The recovery harness replays ten seconds of data per input, the tools'
  # parsers need no more: 30 s at most each.
  if [ "$h" = recovery_fuzzer ] || [ "$h" = tool_parsers_fuzzer ]; then
    [ "$seconds" -gt 30 ] && limit=(-max_total_time=30)
  fi
  if [ -n "${QVN_FUZZ_RUNS:-}" ]; then limit=(-runs="$QVN_FUZZ_RUNS"); fi
  echo "== $h: fuzzing (${limit[*]})"
  if ! "$bin" "${limit[@]}" -timeout=30 -rss_limit_mb=2048 -print_final_stats=1 \
      -artifact_prefix="$build/findings/$h-" "$scratch/$h" 2>"$scratch/$h.log"; then
    grep -E -A40 'ERROR|runtime error|deadly signal|Test unit written' "$scratch/$h.log" >&2 || \
      tail -40 "$scratch/$h.log" >&2
    echo "FAIL: $h found a crash; input kept under $build/findings/" >&2
    status=1
  fi
  grep -E '^stat::number_of_executed_units|^Done' "$scratch/$h.log" || true
done

if [ "$status" -eq 0 ]; then echo "fuzzers: no finding"; fi
exit "$status"
