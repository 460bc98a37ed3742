#!/usr/bin/python3
"""Turns a qvn_replay --out CSV into PNG figures.

field_clouds.png    raw and calibrated field, three projections each, with a
                    least-squares sphere fitted to each cloud
field_accuracy.png  field magnitude before and after calibration over time,
                    with the calibration accuracy level
orientation.png     azimuth, pitch and roll over time, and the true ones when
                    a ground-truth orientation file is given or found
errors.png          with --errors (a qvn_replay --errors-out CSV): heading and
                    tilt error of every orientation output over time, beside
                    the calibration accuracy level

Every figure is FIG_WIDTH_PX x FIG_HEIGHT_PX pixels.
"""
import argparse
import csv
import math
import os
import sys

FIG_WIDTH_PX = 1500
FIG_HEIGHT_PX = 1000
DPI = 100


def read_steps(path):
    with open(path, newline="") as f:
        reader = csv.DictReader(f)
        if reader.fieldnames is None or "t_ns" not in reader.fieldnames:
            raise ValueError(f"{path}: not a qvn_replay output (no t_ns column)")
        cols = {name: [] for name in reader.fieldnames}
        for line, row in enumerate(reader, start=2):
            for name in reader.fieldnames:
                try:
                    cols[name].append(float(row[name]))
                except (TypeError, ValueError):
                    raise ValueError(f"{path}:{line}: column {name} is not a number")
    if not cols["t_ns"]:
        raise ValueError(f"{path}: no rows")
    return cols


def read_truth(path):
    """t_ns,qw,qx,qy,qz (phone to east-north-up) -> times and the angles in the
    library's own convention: azimuth of the phone's y axis from north,
    pitch = atan2(-R21, R22) in (-180, 180], roll = asin(R20) in [-90, 90]."""
    t, az, pitch, roll = [], [], [], []
    with open(path, newline="") as f:
        for line, row in enumerate(csv.DictReader(f), start=2):
            try:
                w, x, y, z = (float(row[k]) for k in ("qw", "qx", "qy", "qz"))
                t_ns = float(row["t_ns"])
            except (KeyError, TypeError, ValueError):
                raise ValueError(f"{path}:{line}: expected t_ns,qw,qx,qy,qz numbers")
            # Rotation matrix rows (world east, north, up) of the phone axes.
            r01 = 2 * (x * y - w * z)
            r11 = 1 - 2 * (x * x + z * z)
            r21 = 2 * (y * z + w * x)
            r20 = 2 * (x * z - w * y)
            r22 = 1 - 2 * (x * x + y * y)
            t.append(t_ns)
            az.append(math.degrees(math.atan2(r01, r11)) % 360.0)
            pitch.append(math.degrees(math.atan2(-r21, r22)))
            roll.append(math.degrees(math.asin(max(-1.0, min(1.0, r20)))))
    return t, az, pitch, roll


def fit_sphere(x, y, z):
    """Least-squares sphere: |p - c|^2 = r^2, linear in (c, r^2 - |c|^2)."""
    import numpy as np

    p = np.column_stack([x, y, z])
    p = p[np.all(np.isfinite(p), axis=1)]
    if len(p) < 4:
        return (0.0, 0.0, 0.0), 0.0
    a = np.column_stack([2 * p, np.ones(len(p))])
    b = (p * p).sum(axis=1)
    sol, *_ = np.linalg.lstsq(a, b, rcond=None)
    c = sol[:3]
    r2 = sol[3] + c @ c
    return tuple(c), math.sqrt(r2) if r2 > 0 else 0.0


def new_figure(plt, rows, cols):
    fig, axes = plt.subplots(rows, cols, figsize=(FIG_WIDTH_PX / DPI, FIG_HEIGHT_PX / DPI), dpi=DPI)
    return fig, axes


def plot_clouds(plt, s, out):
    fig, axes = new_figure(plt, 2, 3)
    pairs = [(0, 1, "x", "y"), (0, 2, "x", "z"), (1, 2, "y", "z")]
    # The calibrated sphere is fitted to the steps after the first adoption
    # (accuracy above 0), when there are any: earlier outputs are raw values.
    calibrated = [i for i, a in enumerate(s["accuracy"]) if a > 0] or list(range(len(s["accuracy"])))
    fits = []
    for row, (prefix, title) in enumerate([("raw", "raw"), ("cal", "calibrated")]):
        xyz = [s[f"{prefix}_{a}"] for a in "xyz"]
        pick = range(len(xyz[0])) if prefix == "raw" else calibrated
        c, r = fit_sphere(*[[v[i] for i in pick] for v in xyz])
        fits.append(f"{title} sphere centre ({c[0]:.1f}, {c[1]:.1f}, {c[2]:.1f}) r {r:.1f} uT")
        for col, (i, j, ni, nj) in enumerate(pairs):
            ax = axes[row][col]
            ax.scatter(xyz[i], xyz[j], s=2, c=s["accuracy"], cmap="viridis", vmin=0, vmax=3)
            circle = plt.Circle((c[i], c[j]), r, fill=False, color="red", linewidth=1.2)
            ax.add_patch(circle)
            ax.set_aspect("equal", adjustable="datalim")
            ax.set_xlabel(f"{ni} (uT)")
            ax.set_ylabel(f"{nj} (uT)")
            ax.set_title(f"{title} field, {ni}-{nj}")
            ax.grid(True, alpha=0.3)
    o = [s[f"offset_{a}"][-1] for a in "xyz"]
    fig.suptitle(f"magnetometer clouds, colour = accuracy 0-3, red = least-squares sphere\n"
                 f"{fits[0]}; {fits[1]}; library offset at the end ({o[0]:.2f}, {o[1]:.2f}, {o[2]:.2f}) uT")
    fig.tight_layout()
    fig.savefig(out, dpi=DPI)


def plot_magnitude(plt, s, out):
    t0 = s["t_ns"][0]
    t = [(v - t0) / 1e9 for v in s["t_ns"]]
    raw = [math.sqrt(x * x + y * y + z * z) for x, y, z in zip(s["raw_x"], s["raw_y"], s["raw_z"])]
    cal = [math.sqrt(x * x + y * y + z * z) for x, y, z in zip(s["cal_x"], s["cal_y"], s["cal_z"])]
    fig, axes = new_figure(plt, 2, 1)
    axes[0].plot(t, raw, label="|raw| (uT)", linewidth=0.8)
    axes[0].plot(t, cal, label="|calibrated| (uT)", linewidth=0.8)
    axes[0].set_ylabel("field magnitude (uT)")
    axes[0].legend(loc="upper right")
    axes[0].grid(True, alpha=0.3)
    axes[1].step(t, s["accuracy"], where="post", color="black")
    axes[1].set_ylim(-0.3, 3.3)
    axes[1].set_yticks([0, 1, 2, 3])
    axes[1].set_ylabel("accuracy level")
    axes[1].set_xlabel("time (s)")
    axes[1].grid(True, alpha=0.3)
    fig.suptitle("field magnitude and calibration accuracy")
    fig.tight_layout()
    fig.savefig(out, dpi=DPI)


def plot_orientation(plt, s, truth, out):
    t0 = s["t_ns"][0]
    t = [(v - t0) / 1e9 for v in s["t_ns"]]
    fig, axes = new_figure(plt, 3, 1)
    names = [("azimuth", 1), ("pitch", 2), ("roll", 3)]
    for ax, (name, k) in zip(axes, names):
        ax.plot(t, s[name], ".", markersize=2, label=f"library {name}")
        if truth is not None:
            tt = [(v - t0) / 1e9 for v in truth[0]]
            ax.plot(tt, truth[k], ".", markersize=1, color="gray", label=f"true {name}")
        ax.set_ylabel(f"{name} (deg)")
        ax.legend(loc="upper right")
        ax.grid(True, alpha=0.3)
    axes[-1].set_xlabel("time (s)")
    fig.suptitle("orientation" + (" with ground truth" if truth is not None else ""))
    fig.tight_layout()
    fig.savefig(out, dpi=DPI)


def read_errors(path):
    """qvn_replay --errors-out: t_s, accuracy, then <output>_heading and
    <output>_tilt per output; empty cells (steps not scored) become NaN."""
    with open(path, newline="") as f:
        reader = csv.DictReader(f)
        if reader.fieldnames is None or reader.fieldnames[:2] != ["t_s", "accuracy"]:
            raise ValueError(f"{path}: not a qvn_replay --errors-out file")
        cols = {name: [] for name in reader.fieldnames}
        for row in reader:
            for name in reader.fieldnames:
                cols[name].append(float(row[name]) if row[name] else math.nan)
    outputs = [n[: -len("_heading")] for n in reader.fieldnames if n.endswith("_heading")]
    return cols, outputs


def rms(values):
    v = [x for x in values if not math.isnan(x)]
    return math.sqrt(sum(x * x for x in v) / len(v)) if v else math.nan


def plot_errors(plt, cols, outputs, out):
    fig, axes = new_figure(plt, len(outputs), 1)
    t = cols["t_s"]
    for ax, name in zip(axes, outputs):
        h, tl = cols[f"{name}_heading"], cols[f"{name}_tilt"]
        ax.plot(t, h, linewidth=0.6, label=f"heading error (RMS {rms(h):.1f})")
        ax.plot(t, tl, linewidth=0.6, label=f"tilt error (RMS {rms(tl):.1f})")
        ax.set_ylabel(f"{name} (deg)")
        ax.grid(True, alpha=0.3)
        ax.legend(loc="upper left", fontsize="small")
        level = ax.twinx()
        level.step(t, cols["accuracy"], where="post", color="gray", linewidth=0.8)
        level.set_ylim(-0.3, 3.3)
        level.set_yticks([0, 1, 2, 3])
        level.set_ylabel("accuracy", color="gray")
    axes[-1].set_xlabel("time (s)")
    fig.suptitle("attitude error against the truth (one constant heading offset removed per output); "
                 "gray: calibration accuracy level")
    fig.tight_layout()
    fig.savefig(out, dpi=DPI)


def main(argv):
    ap = argparse.ArgumentParser(
        prog="qvn_plot",
        description="Turn a qvn_replay --out CSV into PNG figures "
        f"({FIG_WIDTH_PX}x{FIG_HEIGHT_PX} px each): field_clouds.png, "
        "field_accuracy.png, orientation.png.")
    ap.add_argument("steps", nargs="?", help="CSV written by qvn_replay --out")
    ap.add_argument("--errors", help="CSV written by qvn_replay --errors-out (adds errors.png)")
    ap.add_argument("--out-dir", default=".", help="folder for the PNG files (default .)")
    ap.add_argument("--gt", help="true orientation t_ns,qw,qx,qy,qz (default: gt.csv beside the events "
                    "if --events is given)")
    ap.add_argument("--events", help="the replayed events file, to find gt.csv beside it")
    args = ap.parse_args(argv)

    import matplotlib

    matplotlib.use("Agg")
    import matplotlib.pyplot as plt

    if args.steps is None and args.errors is None:
        ap.error("give a steps CSV, --errors, or both")
    try:
        steps = read_steps(args.steps) if args.steps else None
        errors = read_errors(args.errors) if args.errors else None
        gt = args.gt
        if gt is None and args.events:
            cand = os.path.join(os.path.dirname(args.events), "gt.csv")
            gt = cand if os.path.exists(cand) else None
        truth = read_truth(gt) if gt else None
    except (ValueError, KeyError, TypeError) as e:
        print(f"qvn_plot: {e}", file=sys.stderr)
        return 2
    except OSError as e:
        print(f"qvn_plot: {e}", file=sys.stderr)
        return 1
    try:
        return write_figures(plt, args, steps, errors, truth)
    except OSError as e:
        print(f"qvn_plot: cannot write the figures in {args.out_dir}: {e.strerror or e}",
              file=sys.stderr)
        return 1


def write_figures(plt, args, steps, errors, truth):
    os.makedirs(args.out_dir, exist_ok=True)
    # Figures replace regular files only: never a device, FIFO or folder.
    for name in ("field_clouds.png", "field_accuracy.png", "orientation.png", "errors.png"):
        path = os.path.join(args.out_dir, name)
        if os.path.lexists(path) and not os.path.isfile(path):
            raise OSError(f"{path} is not a regular file")
    outs = []
    if steps is not None:
        outs = [os.path.join(args.out_dir, n) for n in ("field_clouds.png", "field_accuracy.png", "orientation.png")]
        plot_clouds(plt, steps, outs[0])
        plot_magnitude(plt, steps, outs[1])
        plot_orientation(plt, steps, truth, outs[2])
    if errors is not None:
        outs.append(os.path.join(args.out_dir, "errors.png"))
        plot_errors(plt, errors[0], errors[1], outs[-1])
    for o in outs:
        print(f"wrote {o}")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
