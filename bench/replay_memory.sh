#!/usr/bin/env bash
# Memory and time of qvn_replay on a large events file: a simulated walk
# (10 minutes, 250 events/s) repeated with shifted times up to SIZE_MB
# (default 1024), generated in a temporary folder and removed afterwards
# (never committed). Prints the file size, then per run the wall and CPU
# time and the peak resident memory (max RSS) of the replay.
#
#   bench/replay_memory.sh [BUILD_DIR] [SIZE_MB]     # default build, 1024
set -euo pipefail
build="${1:-build}"
size_mb="${2:-1024}"
tools="$build/tools"
work=$(mktemp -d "${TMPDIR:-/tmp}/qvn_replay_memory.XXXXXX")
trap 'rm -rf "$work"' EXIT

"$tools/qvn_simulate" --out-dir "$work/sim" --motion still:2,figure8:24,walk:574 --seed 1 >/dev/null
# Copies follow each other one magnetometer interval apart, so times only go forward.
mawk -v target=$((size_mb * 1024 * 1024)) '
  BEGIN { FS = ","; n = 0 }
  NR == 1 { next }
  { t[n] = $1; rest[n] = substr($0, length($1) + 1); n++ }
  END {
    print "t_ns,sensor,x,y,z"; bytes = 18; span = t[n - 1] - t[0] + 20000000
    for (k = 0; bytes < target; k++) {
      for (i = 0; i < n; i++) {
        line = sprintf("%.0f%s", t[i] + k * span, rest[i]); print line; bytes += length(line) + 1
      }
    }
  }' "$work/sim/events.csv" >"$work/events.csv"
echo "events file: $(du -m "$work/events.csv" | cut -f1) MB, $(($(wc -l <"$work/events.csv") - 1)) events"

measure() {  # label, then the command
  local label="$1"
  shift
  /usr/bin/python3 - "$label" "$@" <<'PY'
import resource, subprocess, sys, time
label, cmd = sys.argv[1], sys.argv[2:]
start = time.monotonic()
code = subprocess.run(cmd, stdout=subprocess.DEVNULL).returncode
wall = time.monotonic() - start
ru = resource.getrusage(resource.RUSAGE_CHILDREN)
print(f"{label}: exit {code}, wall {wall:.1f} s, cpu {ru.ru_utime + ru.ru_stime:.1f} s, "
      f"max RSS {ru.ru_maxrss / 1024:.1f} MB")
sys.exit(code)
PY
}
measure "replay, summary only" "$tools/qvn_replay" --no-truth "$work/events.csv"
measure "replay with --out" "$tools/qvn_replay" --no-truth --no-summary --out "$work/steps.csv" \
  "$work/events.csv"
echo "steps file: $(du -m "$work/steps.csv" | cut -f1) MB"
