"""Score the default tunable set and a tuned one against ground truth.

    PYTHONPATH=build/python /usr/bin/python3 examples/score_tuned_set.py \
        [EVENTS.csv] [--gt-shift-ms 20] [--score-from 62]

Default: the swinging walk of ../shared/data (its gt.csv lags by about 20 ms),
scored on the part after 62 s; the tuned set is the one docs/accuracy.md
reports for it (searched by qvn_tune on the first 62 s, values rounded).
"""
import argparse
import os

import pandas as pd

import qvnlib

HERE = os.path.dirname(os.path.abspath(__file__))
TUNED = {
    "g_quat_weight_acc_delta": 0.160,
    "g_quat_weight_mag_delta": 0.0113,
    "g_quat_weight_acc_normal": 0.0095,
    "g_quat_weight_mag_normal": 0.000164,
    "g_optimal_compensation_mode": 0,
    "g_enable_mag_moving_average": 1,
    "g_enable_softGyro_rv": 1,
    "g_lpf_acc_ratio": 0.096,
    "g_lpf_mag_ratio": 1.0,
}

parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
parser.add_argument("events", nargs="?", default=os.path.join(
    HERE, "..", "..", "shared", "data", "phone_swinging_walk", "events.csv"))
parser.add_argument("--gt", help="ground truth (default: gt.csv beside the events)")
parser.add_argument("--gt-shift-ms", type=float, default=20)
parser.add_argument("--score-from", type=float, default=62)
args = parser.parse_args()

truth = qvnlib.read_truth(args.gt or os.path.join(os.path.dirname(args.events), "gt.csv"))
events = qvnlib.read_events(args.events)
rows = {}
for name, sets in (("default", None), ("tuned", TUNED)):
    run = qvnlib.replay(events, hw_gyro=1, skip_early_gyro=True, sets=sets, truth=truth,
                        gt_shift_ms=args.gt_shift_ms, score_from_s=args.score_from, lag=False)
    rows[name] = run.accuracy.loc["orientation", ["steps", "heading_rms", "heading_p95",
                                                  "tilt_rms"]]
table = pd.DataFrame(rows).T
print(f"Orientation scored from {args.score_from:g} s (degrees):")
print(table.to_string(float_format="{:.2f}".format))
