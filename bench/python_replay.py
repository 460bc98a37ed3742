#!/usr/bin/python3
"""Cost of a replay from Python against qvn_replay on the same recording.

    bench/python_replay.py [--build build] [--repetitions 15] [EVENTS.csv]

Both sides read the event file, replay it through the same libqvnlib.so,
keep every per-step value and make the summary: qvn_replay with
--out FILE --no-truth (a fresh process each time: start-up, loading and
writing the CSV included), qvnlib.replay(path) in a warm interpreter (the
library loaded once, the steps built as a pandas frame). CPU time
(user + system) per replay, median of the repetitions; the ratio is
Python / tool. Default recording: ../shared/data/phone_swinging_walk (124 s).
"""
import argparse
import os
import resource
import statistics
import subprocess
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
parser.add_argument("events", nargs="?", default=os.path.join(
    ROOT, "..", "shared", "data", "phone_swinging_walk", "events.csv"))
parser.add_argument("--build", default=os.path.join(ROOT, "build"))
parser.add_argument("--repetitions", type=int, default=15)
parser.add_argument("--hw-gyro", type=int, default=1)
args = parser.parse_args()

sys.path.insert(0, os.path.join(args.build, "python"))
import qvnlib  # noqa: E402

tool = os.path.join(args.build, "tools", "qvn_replay")


def children_cpu():
    r = resource.getrusage(resource.RUSAGE_CHILDREN)
    return r.ru_utime + r.ru_stime


def tool_once(out):
    before, wall = children_cpu(), time.perf_counter()
    subprocess.run([tool, "--hw-gyro", str(args.hw_gyro), "--skip-early-gyro", "--no-truth",
                    *(["--out", out] if out else []), args.events], check=True,
                   stdout=subprocess.DEVNULL)
    return children_cpu() - before, time.perf_counter() - wall


def python_once():
    before, wall = time.process_time(), time.perf_counter()
    run = qvnlib.replay(args.events, hw_gyro=args.hw_gyro, skip_early_gyro=True)
    assert len(run.steps) > 0
    return time.process_time() - before, time.perf_counter() - wall


with tempfile.TemporaryDirectory() as folder:
    out = os.path.join(folder, "steps.csv")
    tool_once(out), python_once()  # warm the page cache and load the library
    times = {"qvn_replay --out": [], "qvn_replay (no --out)": [], "qvnlib.replay": []}
    for _ in range(args.repetitions):  # interleaved, so that load changes hit all
        times["qvn_replay --out"].append(tool_once(out))
        times["qvn_replay (no --out)"].append(tool_once(None))
        times["qvnlib.replay"].append(python_once())

print(f"recording     {args.events} ({len(qvnlib.read_events(args.events))} events)")
print(f"machine       {os.cpu_count()} logical CPUs, load {os.getloadavg()[0]:.2f}; "
      f"median of {args.repetitions}")
python_cpu = statistics.median(t[0] for t in times["qvnlib.replay"])
for name, runs in times.items():
    cpu, wall = (statistics.median(t[k] for t in runs) for k in (0, 1))
    print(f"{name:22s} CPU {cpu * 1e3:7.1f} ms  wall {wall * 1e3:7.1f} ms  "
          f"Python/this {python_cpu / cpu:.2f}x")
