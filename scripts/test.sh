#!/usr/bin/env bash
# Builds the library and runs every test: the plain build, then the whole
# suite again under AddressSanitizer + UndefinedBehaviorSanitizer, then the
# fuzzers for a bounded time on top of the committed corpus.
set -euo pipefail
cd "$(dirname "$0")/.."
QVN_WITH_FUZZ=1 scripts/deps.sh
jobs=$(nproc)

cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j"$jobs"
(cd build && ctest --output-on-failure -j"$jobs")

cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DQVN_SANITIZE=ON -DQVN_BUILD_TOOLS=ON
cmake --build build-asan -j"$jobs"
(cd build-asan && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
   ctest --output-on-failure -j"$jobs")

if [ -x fuzz/run_fuzzers.sh ]; then
  fuzz/run_fuzzers.sh "${QVN_FUZZ_SECONDS:-60}"
fi
echo "all tests passed"
