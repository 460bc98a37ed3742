#!/usr/bin/env bash
# The main job on a workstation, end to end:
#   1. builds the library and the tools if needed;
#   2. simulates a figure-eight calibration with a known hard-iron offset,
#      replays it through the library and prints the summary, with the
#      recovered offset next to the true one;
#   3. replays the bundled phone recording (data/phone_walk_flat) and prints
#      what the library found there;
#   4. replays the shared recordings of one phone when they are present
#      (../shared/data: lying still, a calibration movement, a swinging walk
#      with ground truth), with the calibration movement as the offset
#      reference of the other two;
#   5. writes the plots of every replay (installs python3-matplotlib if
#      needed), errors.png wherever there is ground truth;
#   6. ends with one sentence per recording: when and how well it calibrated,
#      or why it never did.
# Every summary lists the calibration attempts with the bound that refused
# each, the share of directions covered, and the distance of the library's
# offset from an independent whole-recording calibration (the reference).
#
# Environment: QVN_BUILD_DIR (default build-main: a build of its own, without
# the tests, so that it never changes the settings of the test build),
# QVN_OUT_DIR (default <build>/main-job), QVN_NO_PLOTS=1 to skip the figures,
# QVN_SHARED_DATA (default ../shared/data beside the project).
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
shared=${QVN_SHARED_DATA:-$root/../shared/data}
verdicts=()

# replay NAME EVENTS [qvn_replay options...]: summary on stdout (kept in
# <out>/NAME/summary.txt), per-step, attempt and quality CSVs, errors.csv
# when a ground truth is found, then the plots.
replay() {
  local name=$1 events=$2
  shift 2
  local dir="$out/$name" errs=()
  mkdir -p "$dir"
  if [ -f "$(dirname "$events")/gt.csv" ]; then errs=(--errors-out "$dir/errors.csv"); fi
  "$tools/qvn_replay" --out "$dir/steps.csv" --attempts-out "$dir/attempts.csv" \
    --quality-out "$dir/quality.csv" "${errs[@]}" "$@" "$events" | tee "$dir/summary.txt"
  verdicts+=("$name" "$(grep -m1 '^verdict' "$dir/summary.txt" | cut -c21-)")
  if [ "${QVN_NO_PLOTS:-0}" = 1 ]; then return; fi
  local extra=()
  if [ -f "$dir/errors.csv" ]; then extra=(--errors "$dir/errors.csv"); fi
  "$tools/qvn_plot" --out-dir "$dir/plots" --events "$events" "${extra[@]}" "$dir/steps.csv" ||
    echo "(plots skipped: see the message above)"
}

step "simulated figure-eight calibration with a known offset"
sim="$out/simulated"
mkdir -p "$sim"
"$tools/qvn_simulate" --out-dir "$sim/input" --seed 1
replay simulated "$sim/input/events.csv"

step "bundled phone recording: data/phone_walk_flat (walk with the phone held flat)"
replay phone_walk_flat "$root/data/phone_walk_flat/events.csv"

if [ -d "$shared/phone_magcal" ]; then
  cal="$shared/phone_magcal/events.csv"
  step "shared recording: phone_magcal (figure eights through all orientations)"
  replay phone_magcal "$cal"
  step "shared recording: phone_still (the same phone lying still; reference: phone_magcal)"
  replay phone_still "$shared/phone_still/events.csv" --reference-events "$cal"
  step "shared recording: phone_swinging_walk (the same phone; reference: phone_magcal)"
  replay phone_swinging_walk "$shared/phone_swinging_walk/events.csv" --reference-events "$cal" \
    --gt-shift-ms 20 --no-lag
else
  step "shared recordings not found under $shared (QVN_SHARED_DATA): skipped"
fi

step "what the library did, per recording"
for ((i = 0; i < ${#verdicts[@]}; i += 2)); do
  printf '%-20s ' "${verdicts[i]}"
  printf '%s\n' "${verdicts[i + 1]}" | fold -s -w 80 | sed '2,$s/^/                     /'
done
echo "(the reference: an independent batch calibration of the whole recording, or of"
echo " phone_magcal for the still phone and the walk; 5 uT of offset error is 10-15 degrees"
echo " of heading where the horizontal field is 20-30 uT)"

step "outputs"
echo "summaries, per-step, attempt and quality CSVs and plots under $out"
