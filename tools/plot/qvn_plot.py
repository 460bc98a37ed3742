#!/usr/bin/python3
"""qvn_plot: PNG figures of a qvn_replay run (the drawing lives in qvnlib.plots).

field_clouds.png    raw field (all samples) and calibrated field (calibrated
                    samples only) in three projections, coloured by accuracy
                    with a colour bar, the library's sphere in force and the
                    reference fit
field_accuracy.png  field magnitude, accuracy with every calibration attempt,
                    coverage of directions, distance of the offset in force
                    from the reference, over time
orientation.png     azimuth, pitch and roll, beside the truth converted in the
                    angle order of the path that made them
errors.png          with --errors: heading and tilt error of every output

Every figure is 1500 x 1000 pixels.
"""
import argparse
import os
import sys

HERE = os.path.dirname(os.path.realpath(__file__))
# Where the figures' module is found: beside this script in the source tree
# (tools/plot -> python/), the build tree (<build>/tools/python), an
# installation (<prefix>/share/qvnlib/python), then an installed package. It
# is loaded as a file: it needs numpy, pandas and matplotlib only, not the
# package's compiled part.
CANDIDATES = [os.path.join(HERE, "..", "..", "python"), os.path.join(HERE, "python"),
              os.path.join(HERE, "..", "share", "qvnlib", "python")]


def import_plots():
    import importlib.util

    for c in CANDIDATES:
        path = os.path.join(c, "qvnlib", "plots.py")
        if os.path.isfile(path):
            found = importlib.util.spec_from_file_location("qvnlib_plots", path)
            module = importlib.util.module_from_spec(found)
            found.loader.exec_module(module)
            return module
    try:
        import qvnlib.plots as plots
        return plots
    except ImportError as e:
        raise ImportError(f"qvnlib.plots not found (looked in {', '.join(CANDIDATES)}): {e}")


def read_csv(path, required, what, only_required=False, may_be_empty=False, complete=False):
    import numpy as np
    import pandas as pd

    try:
        header = pd.read_csv(path, nrows=0).columns
        missing = [c for c in required if c not in header]
        if missing:
            raise ValueError(f"not {what} (no column {', '.join(missing)})")
        # Only the columns drawn, as float32 (times as int64): a one-hour
        # replay has 180000 rows.
        dtypes = {c: (np.int64 if c == "t_ns" else np.float32) for c in required}
        df = pd.read_csv(path, usecols=required if only_required else None,
                         dtype=dtypes if only_required else None)
    except (OSError, ValueError) as e:
        raise ValueError(f"{path}: {e}")
    if len(df) == 0 and not may_be_empty:
        raise ValueError(f"{path}: no rows")
    if complete and len(df):
        # Every value present: a short row would be read as missing values.
        bad = df[required].isna().any(axis=1).to_numpy()
        if bad.any():
            raise ValueError(f"{path}:{int(np.argmax(bad)) + 2}: expected {','.join(required)} numbers")
    numeric = df.select_dtypes(exclude="number").columns.intersection(required)
    if len(df) and len(numeric):
        raise ValueError(f"{path}: column {numeric[0]} is not all numbers")
    return df


def beside(path, name):
    cand = os.path.join(os.path.dirname(os.path.abspath(path)), name)
    return cand if os.path.exists(cand) else None


def main(argv):
    ap = argparse.ArgumentParser(prog="qvn_plot", description=__doc__,
                                 formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("steps", nargs="?", help="CSV written by qvn_replay --out")
    ap.add_argument("--errors", help="CSV written by qvn_replay --errors-out (adds errors.png)")
    ap.add_argument("--attempts", help="qvn_replay --attempts-out CSV (default: attempts.csv beside the steps)")
    ap.add_argument("--quality", help="qvn_replay --quality-out CSV (default: quality.csv beside the steps)")
    ap.add_argument("--out-dir", default=".", help="folder for the PNG files (default .)")
    ap.add_argument("--gt", help="true orientation t_ns,qw,qx,qy,qz (default: gt.csv beside --events)")
    ap.add_argument("--events", help="the replayed events file, to find gt.csv beside it")
    ap.add_argument("--hw-gyro", type=int, choices=[0, 1], default=0,
                    help="the replay's hwGyro: which path's angle order the truth is shown in (default 0)")
    ap.add_argument("--from", dest="t_from", type=float, help="first second shown (from the first step)")
    ap.add_argument("--to", dest="t_to", type=float, help="last second shown")
    args = ap.parse_args(argv)
    if args.steps is None and args.errors is None:
        ap.error("give a steps CSV, --errors, or both")

    import matplotlib

    matplotlib.use("Agg")
    import matplotlib.pyplot as plt

    try:
        plots = import_plots()
        steps = attempts = quality = truth = errors = None
        if args.steps:
            steps = read_csv(args.steps, ["t_ns", "raw_x", "raw_y", "raw_z", "cal_x", "cal_y", "cal_z",
                                          "offset_x", "offset_y", "offset_z", "accuracy", "azimuth",
                                          "pitch", "roll", "gravity_x", "gravity_y", "gravity_z"],
                             "a qvn_replay --out file", only_required=True)
            a = args.attempts or beside(args.steps, "attempts.csv")
            q = args.quality or beside(args.steps, "quality.csv")
            if a:
                # No rows: no batch was ever complete.
                attempts = read_csv(a, ["t_ns", "passed", "adopted", "coverage"], "an attempts file",
                                    may_be_empty=True)
                attempts = attempts if len(attempts) else None
            if q:
                quality = read_csv(q, ["t_ns", "batch", "coverage", "offset_distance", "ref_x", "ref_y", "ref_z",
                                       "ref_radius", "ref_sensor_x", "ref_sensor_y", "ref_sensor_z"],
                                   "a quality file", only_required=True)
        if args.errors:
            errors = read_csv(args.errors, ["t_s", "accuracy"], "a qvn_replay --errors-out file")
            errors = errors.astype({c: "float32" for c in errors.columns if c != "t_s"})
        gt = args.gt or (beside(args.events, "gt.csv") if args.events else None)
        if gt and steps is not None:
            truth = read_csv(gt, ["t_ns", "qw", "qx", "qy", "qz"], "a ground-truth file",
                             complete=True)
    except (ValueError, ImportError) as e:
        print(f"qvn_plot: {e}", file=sys.stderr)
        return 2
    window = dict(t_from=args.t_from, t_to=args.t_to)
    names = []
    if steps is not None:
        names += ["field_clouds.png", "field_accuracy.png", "orientation.png"]
    if errors is not None:
        names.append("errors.png")
    try:
        os.makedirs(args.out_dir, exist_ok=True)
        # Figures replace regular files only: never a device, FIFO or folder.
        for name in names:
            path = os.path.join(args.out_dir, name)
            if os.path.lexists(path) and not os.path.isfile(path):
                print(f"qvn_plot: {path} is not a regular file", file=sys.stderr)
                return 1
        for name in names:
            if name == "field_clouds.png":
                fig = plots.field_clouds(steps, attempts, quality, **window)
            elif name == "field_accuracy.png":
                fig = plots.calibration_timeline(steps, attempts, quality, **window)
            elif name == "orientation.png":
                fig = plots.orientation(steps, truth, args.hw_gyro, **window)
            else:
                fig = plots.errors(errors, **window)
            out = os.path.join(args.out_dir, name)
            fig.savefig(out, dpi=plots.DPI)
            plt.close(fig)
            print(f"wrote {out}")
    except OSError as e:
        print(f"qvn_plot: cannot write the figures in {args.out_dir}: {e.strerror or e}",
              file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
