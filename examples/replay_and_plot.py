"""Replay a recording and plot what the magnetometer calibration did.

    PYTHONPATH=build/python /usr/bin/python3 examples/replay_and_plot.py \
        [EVENTS.csv] [--hw-gyro 1] [--out calibration.png]

Default recording: the bundled walk data/phone_walk_flat/events.csv (MIT).
"""
import argparse
import os

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402

import qvnlib  # noqa: E402

HERE = os.path.dirname(os.path.abspath(__file__))
parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
parser.add_argument("events", nargs="?",
                    default=os.path.join(HERE, "..", "data", "phone_walk_flat", "events.csv"))
parser.add_argument("--hw-gyro", type=int, default=1)
parser.add_argument("--out", default="calibration.png")
args = parser.parse_args()

run = qvnlib.replay(args.events, hw_gyro=args.hw_gyro, skip_early_gyro=True)
print(run.summary)

steps = run.steps.assign(t_s=(run.steps["t_ns"] - run.t0_ns) / 1e9)
steps["raw_norm"] = (steps[["raw_x", "raw_y", "raw_z"]] ** 2).sum(axis=1) ** 0.5
steps["cal_norm"] = (steps[["cal_x", "cal_y", "cal_z"]] ** 2).sum(axis=1) ** 0.5

fig, (offset, field, level) = plt.subplots(3, 1, sharex=True, figsize=(10, 8))
steps.plot(x="t_s", y=["offset_x", "offset_y", "offset_z"], ax=offset, ylabel="offset (uT)")
steps.plot(x="t_s", y=["raw_norm", "cal_norm"], ax=field, ylabel="|field| (uT)")
steps.plot(x="t_s", y="accuracy", ax=level, drawstyle="steps-post", ylabel="accuracy",
           legend=False)
level.set_xlabel("time (s)")
fig.suptitle(os.path.basename(os.path.dirname(os.path.abspath(args.events))))
fig.savefig(args.out, dpi=100)
print(f"wrote {args.out}")
