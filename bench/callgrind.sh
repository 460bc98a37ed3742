#!/bin/sh
# Instructions per operation, counted by valgrind's callgrind: repeatable on a
# busy machine where wall-clock figures are not. Builds the Release benchmark
# tree if needed, then runs every operation (or those whose name matches the
# optional grep pattern) under callgrind with collection switched on only
# around the measured calls, and prints the collected total divided by the
# number of calls.
#
#   bench/callgrind.sh                  # every operation
#   bench/callgrind.sh 'fusion_step'    # a subset
#
# Kernel time (the open/read/close of the battery file) is not counted:
# callgrind sees user-space instructions only.
set -eu

ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD=${QVN_BENCH_BUILD_DIR:-$ROOT/build-bench-release}
PATTERN=${1:-.}
CALLS=${QVN_BENCH_CALLS:-1000}      # calls per cheap operation
FIT_CALLS=${QVN_BENCH_FIT_CALLS:-40}  # calls per fit step and ellipsoid fit

if [ ! -f "$BUILD/CMakeCache.txt" ]; then
  cmake -S "$ROOT" -B "$BUILD" -DCMAKE_BUILD_TYPE=Release -DQVN_BUILD_BENCH=ON \
    -DQVN_BUILD_TESTS=OFF -DQVN_BUILD_TOOLS=OFF >/dev/null
fi
cmake --build "$BUILD" -j2 --target qvn_bench_count >/dev/null

COUNTER=$BUILD/bench/qvn_bench_count
OUT=$(mktemp -d)
trap 'rm -rf "$OUT"' EXIT

printf '%-46s %14s  %s\n' operation instructions target
"$COUNTER" --list | grep -E -- "$PATTERN" | while IFS="$(printf '\t')" read -r name target; do
  case "$name" in
    cali_fit_step/* | ellipsoid_fit/*) n=$FIT_CALLS ;;
    *) n=$CALLS ;;
  esac
  valgrind --tool=callgrind --collect-atstart=no --callgrind-out-file="$OUT/cg.out" \
    "$COUNTER" "$name" "$n" >/dev/null 2>&1
  total=$(sed -n 's/^\(summary\|totals\): *\([0-9]*\).*/\2/p' "$OUT/cg.out" | head -n 1)
  awk -v name="$name" -v t="$total" -v n="$n" -v target="$target" \
    'BEGIN { printf "%-46s %14.0f  %s\n", name, t / n, target }'
done
