#!/usr/bin/env bash
# The main job on a workstation, end to end:
#   1. builds the library and the tools if needed;
#   2. simulates a figure-eight calibration with a known hard-iron offset,
#      replays it through the library and prints the summary, with the
#      recovered offset next to the true one;
#   3. replays the bundled phone recording (data/phone_walk_flat) and prints
#      what the library found there;
#   4. writes the plots of both replays (installs python3-matplotlib if needed).
#
# Environment: QVN_BUILD_DIR (default build-main: a build of its own, without
# the tests, so that it never changes the settings of the test build),
# QVN_OUT_DIR (default <build>/main-job), QVN_NO_PLOTS=1 to skip the figures.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${QVN_BUILD_DIR:-$root/build-main}
out=${QVN_OUT_DIR:-$build/main-job}

step() { printf '\n== %s ==\n' "$*"; }

# Build tools and libraries the first time (the Android log library and a
# compiler come from Debian's packages; the project's deps script installs them).
if [ -x "$root/scripts/deps.sh" ] && ! dpkg-query -W -f='${Status}' android-liblog-dev 2>/dev/null | grep -q 'ok installed'; then
  "$root/scripts/deps.sh"
fi
if [ ! -f "$build/CMakeCache.txt" ]; then
  cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQVN_BUILD_TESTS=OFF >/dev/null
fi
cmake --build "$build" -j"$(nproc)" --target qvn_replay qvn_simulate >/dev/null
tools="$build/tools"

plot() {  # plot STEPS EVENTS DIR
  if [ "${QVN_NO_PLOTS:-0}" = 1 ]; then return; fi
  "$tools/qvn_plot" --out-dir "$3" --events "$2" "$1" ||
    echo "(plots skipped: see the message above)"
}

step "simulated figure-eight calibration with a known offset"
sim="$out/simulated"
mkdir -p "$sim"
"$tools/qvn_simulate" --out-dir "$sim" --seed 1
"$tools/qvn_replay" --out "$sim/steps.csv" "$sim/events.csv"
plot "$sim/steps.csv" "$sim/events.csv" "$sim/plots"

step "bundled phone recording: data/phone_walk_flat (walk with the phone held flat)"
rec="$out/phone_walk_flat"
mkdir -p "$rec"
"$tools/qvn_replay" --out "$rec/steps.csv" "$root/data/phone_walk_flat/events.csv"
plot "$rec/steps.csv" "$root/data/phone_walk_flat/events.csv" "$rec/plots"

step "outputs"
echo "per-step CSVs and plots under $out"
