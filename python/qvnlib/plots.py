"""Figures of a replay: what the library calibrated, how well, and its attitude.

Every function takes pandas DataFrames and returns a matplotlib Figure; none
needs the compiled module. Column names:

steps     the columns of ``qvn_replay --out`` (t_ns, raw_*, cal_*, offset_*,
          accuracy, azimuth, pitch, roll, gravity_*, ...)
attempts  ``qvn_replay --attempts-out``: one row per calibration attempt (t_ns,
          method, passed, adopted, bound, radius, logged_radius, coverage,
          offset_sensor_*, ...)
quality   ``qvn_replay --quality-out``: per step batch, coverage,
          offset_distance and the reference sphere (ref_*, ref_sensor_*,
          ref_radius)
truth     t_ns, qw, qx, qy, qz: phone to east-north-up
errors    ``qvn_replay --errors-out``: t_s, accuracy, <output>_heading/_tilt

Long recordings are drawn decimated: a time series of more points than the
figure has pixel columns keeps, per column, its smallest and largest value
(so peaks survive and nothing turns into a solid band), and clouds are
thinned to a fixed number of points chosen evenly in time. ``t_from`` and
``t_to`` (seconds from the first step) cut a window first.
"""
import math

import numpy as np

FIG_WIDTH_PX = 1500
FIG_HEIGHT_PX = 1000
DPI = 100
MAX_CLOUD_POINTS = 4000
SERIES_COLUMNS = 1400  # roughly the pixel columns of an axis
OFFSET_TOLERANCE_UT = 5.0  # the replay summary flags accuracy 3 beyond this distance
# The phone's y axis (upright) or x axis (on its side, where the angle order
# locks) within this angle of vertical: the azimuth means nothing there.
AZIMUTH_HIDDEN_DEG = 20.0
ACCURACY_COLOURS = ["#d62728", "#ff7f0e", "#bcbd22", "#2ca02c"]  # levels 0..3


def _figure(rows, cols, **kw):
    import matplotlib.pyplot as plt

    return plt.subplots(rows, cols, figsize=(FIG_WIDTH_PX / DPI, FIG_HEIGHT_PX / DPI), dpi=DPI,
                        squeeze=False, **kw)


def _seconds(df, t0):
    return (df["t_ns"].to_numpy(dtype=np.float64) - t0) / 1e9


def _window(df, t0, t_from, t_to):
    if df is None or len(df) == 0:
        return df
    t = _seconds(df, t0)
    keep = np.ones(len(df), dtype=bool)
    if t_from is not None:
        keep &= t >= t_from
    if t_to is not None:
        keep &= t <= t_to
    return df[keep]


def decimate(t, y, columns=SERIES_COLUMNS):
    """(t, y) to draw: all points when they are few, else per time column its
    smallest and largest finite value (at the column's middle), so that peaks
    survive and a long recording does not turn into a solid band. t must be
    sorted."""
    t = np.asarray(t, dtype=np.float64)
    y = np.asarray(y, dtype=np.float64)
    if len(t) <= 2 * columns:
        return t, y
    edges = np.searchsorted(t, np.linspace(t[0], t[-1], columns + 1)[:-1])
    starts = np.unique(edges)
    with np.errstate(invalid="ignore"):
        lo = np.fmin.reduceat(y, starts)
        hi = np.fmax.reduceat(y, starts)
    ends = np.r_[starts[1:], len(t)] - 1
    mid = 0.5 * (t[starts] + t[ends])
    return np.repeat(mid, 2), np.column_stack([lo, hi]).ravel()


def thin(n, limit=MAX_CLOUD_POINTS):
    """Evenly spaced indices, at most limit of them."""
    if n <= limit:
        return np.arange(n)
    return np.linspace(0, n - 1, limit).astype(np.int64)


def fit_sphere(points):
    """Least-squares sphere (centre, radius) of an (n, 3) array, or None."""
    p = np.asarray(points, dtype=np.float64)
    p = p[np.all(np.isfinite(p), axis=1)]
    if len(p) < 4:
        return None
    mean = p.mean(axis=0)
    d = p - mean
    a = np.column_stack([2 * d, np.ones(len(d))])
    sol, _, rank, _ = np.linalg.lstsq(a, (d * d).sum(axis=1), rcond=None)
    if rank < 4:
        return None
    r2 = sol[3] + sol[:3] @ sol[:3]
    if r2 <= 0:
        return None
    return sol[:3] + mean, math.sqrt(r2)


def calibrated_mask(steps):
    """Steps whose offset differs from the one in force at the first step:
    before that the library's 'calibrated' output is the raw field."""
    off = steps[["offset_x", "offset_y", "offset_z"]].to_numpy()
    if len(off) == 0:
        return np.zeros(0, dtype=bool)
    changed = np.any(off != off[0], axis=1)
    first = np.argmax(changed) if changed.any() else len(off)
    mask = np.zeros(len(off), dtype=bool)
    mask[first:] = True
    return mask


def _accuracy_colours():
    from matplotlib.colors import BoundaryNorm, ListedColormap

    cmap = ListedColormap(ACCURACY_COLOURS)
    return cmap, BoundaryNorm([-0.5, 0.5, 1.5, 2.5, 3.5], cmap.N)


def _library_sphere(attempts):
    """(sensor-frame centre, radius, t) of the last adopted fit, or None."""
    if attempts is None or len(attempts) == 0:
        return None
    adopted = attempts[attempts["adopted"] == 1]
    if len(adopted) == 0:
        return None
    a = adopted.iloc[-1]
    radius = a["logged_radius"] if a.get("logged_radius", -1) >= 0 else a["radius"]
    if not np.isfinite(radius):
        return None
    return (np.array([a["offset_sensor_x"], a["offset_sensor_y"], a["offset_sensor_z"]]), float(radius),
            a)


def _reference(quality, raw):
    """(sensor-frame centre, library-frame centre or None, radius, label)."""
    if quality is not None and len(quality) and np.isfinite(quality["ref_radius"].iloc[0]):
        q = quality.iloc[0]
        return (np.array([q["ref_sensor_x"], q["ref_sensor_y"], q["ref_sensor_z"]]),
                np.array([q["ref_x"], q["ref_y"], q["ref_z"]]), float(q["ref_radius"]),
                "reference: independent batch calibration")
    fit = fit_sphere(raw)
    if fit is None:
        return None
    return fit[0], None, fit[1], "reference: least-squares fit of these samples"


def field_clouds(steps, attempts=None, quality=None, t_from=None, t_to=None):
    """Raw field (all samples) and calibrated field (calibrated samples only) in
    three projections, coloured by accuracy, with the library's sphere in force
    and the reference fit drawn on both."""
    import matplotlib.pyplot as plt

    t0 = steps["t_ns"].iloc[0]
    steps = _window(steps, t0, t_from, t_to)
    fig, axes = _figure(2, 3)
    cmap, norm = _accuracy_colours()
    raw = steps[["raw_x", "raw_y", "raw_z"]].to_numpy(dtype=np.float64)
    cal_mask = calibrated_mask(steps)
    cal = steps[["cal_x", "cal_y", "cal_z"]].to_numpy(dtype=np.float64)[cal_mask]
    acc = steps["accuracy"].to_numpy()
    lib = _library_sphere(attempts)
    ref = _reference(quality, raw)
    off_end = steps[["offset_x", "offset_y", "offset_z"]].to_numpy(dtype=np.float64)[-1]
    pairs = [(0, 1), (0, 2), (1, 2)]
    names = "xyz"
    scatter = None
    views = [("raw field, all samples (sensor frame)", raw, acc),
             ("calibrated field, calibrated samples only", cal, acc[cal_mask])]
    for row, (title, pts, colour) in enumerate(views):
        pick = thin(len(pts))
        for col, (i, j) in enumerate(pairs):
            ax = axes[row][col]
            if len(pts) == 0:
                ax.text(0.5, 0.5, "never calibrated:\nno calibrated samples", ha="center", va="center",
                        transform=ax.transAxes)
            else:
                scatter = ax.scatter(pts[pick, i], pts[pick, j], s=2, c=colour[pick], cmap=cmap,
                                     norm=norm, rasterized=True)
            circles = []
            if lib is not None:
                centre = lib[0] if row == 0 else np.zeros(3)
                circles.append((centre, lib[1], "black", "-",
                                f"library's sphere in force (fit at +{(lib[2]['t_ns'] - t0) / 1e9:.1f} s)"))
            if ref is not None:
                if row == 0:
                    circles.append((ref[0], ref[2], "#1f77b4", "--", ref[3]))
                elif ref[1] is not None and len(pts):
                    circles.append((ref[1] - off_end, ref[2], "#1f77b4", "--", ref[3]))
            for centre, radius, colour_c, style, label in circles:
                ax.add_patch(plt.Circle((centre[i], centre[j]), radius, fill=False, color=colour_c,
                                        linestyle=style, linewidth=1.3, label=label))
                ax.plot([centre[i]], [centre[j]], marker="+", color=colour_c)
            ax.set_aspect("equal", adjustable="datalim")
            ax.set_xlabel(f"{names[i]} (uT)")
            ax.set_ylabel(f"{names[j]} (uT)")
            ax.set_title(f"{title}, {names[i]}-{names[j]}", fontsize="medium")
            ax.grid(True, alpha=0.3)
            if col == 0 and circles:
                ax.legend(loc="upper left", fontsize="x-small")
    if scatter is not None:
        bar = fig.colorbar(scatter, ax=axes, ticks=[0, 1, 2, 3], fraction=0.02, pad=0.01)
        bar.set_label("accuracy level")
    sub = "no adopted fit" if lib is None else (
        f"library: centre ({lib[0][0]:.1f}, {lib[0][1]:.1f}, {lib[0][2]:.1f}) r {lib[1]:.1f} uT")
    if ref is not None:
        sub += f"; reference: centre ({ref[0][0]:.1f}, {ref[0][1]:.1f}, {ref[0][2]:.1f}) r {ref[2]:.1f} uT"
    fig.suptitle("magnetometer samples (up to %d shown per view)\n%s" % (MAX_CLOUD_POINTS, sub))
    return fig


def envelope(t, y, columns=SERIES_COLUMNS):
    """Per time column: middle time, mean, smallest and largest finite value;
    None when the series is short enough to draw as it is. t must be sorted."""
    t = np.asarray(t, dtype=np.float64)
    y = np.asarray(y, dtype=np.float64)
    if len(t) <= 2 * columns:
        return None
    starts = np.unique(np.searchsorted(t, np.linspace(t[0], t[-1], columns + 1)[:-1]))
    finite = np.isfinite(y)
    with np.errstate(invalid="ignore", divide="ignore"):
        lo = np.fmin.reduceat(y, starts)
        hi = np.fmax.reduceat(y, starts)
        mean = np.add.reduceat(np.where(finite, y, 0), starts) / np.add.reduceat(finite, starts)
    ends = np.r_[starts[1:], len(t)] - 1
    return 0.5 * (t[starts] + t[ends]), mean, lo, hi


def _series(ax, t, y, label=None, **kw):
    """A line, or for a long series its per-column mean with the range of
    values around it shaded."""
    env = envelope(t, y)
    if env is None:
        return ax.plot(t, y, label=label, **kw)
    mid, mean, lo, hi = env
    lines = ax.plot(mid, mean, label=label + " (mean per pixel, shaded: range)" if label else None, **kw)
    ax.fill_between(mid, lo, hi, color=lines[0].get_color(), alpha=0.25, linewidth=0)
    return lines


def _spans(t, flag):
    """(start, end) times of the runs where flag is true."""
    if len(t) == 0:
        return []
    f = np.r_[False, np.asarray(flag, dtype=bool), False]
    d = np.flatnonzero(np.diff(f.astype(np.int8)))
    t_end = np.r_[t, t[-1]]
    return list(zip(t[d[0::2]], t_end[d[1::2]]))


def calibration_timeline(steps, attempts=None, quality=None, t_from=None, t_to=None):
    """Field magnitude, accuracy with every attempt, coverage, and the distance
    of the offset in force from the reference, over time."""
    t0 = steps["t_ns"].iloc[0]
    steps = _window(steps, t0, t_from, t_to)
    attempts = _window(attempts, t0, t_from, t_to)
    quality = _window(quality, t0, t_from, t_to)
    t = _seconds(steps, t0)
    fig, axes = _figure(4, 1, sharex=True)
    ax = axes[0][0]
    raw = np.linalg.norm(steps[["raw_x", "raw_y", "raw_z"]].to_numpy(dtype=np.float64), axis=1)
    cal = np.linalg.norm(steps[["cal_x", "cal_y", "cal_z"]].to_numpy(dtype=np.float64), axis=1)
    cal[~calibrated_mask(steps)] = np.nan
    _series(ax, t, raw, linewidth=0.7, label="|raw| (uT)")
    _series(ax, t, cal, linewidth=0.7, label="|calibrated| (uT), calibrated steps only")
    if quality is not None and len(quality) and np.isfinite(quality["ref_radius"].iloc[0]):
        ax.axhline(quality["ref_radius"].iloc[0], color="#1f77b4", linestyle="--", linewidth=0.8,
                   label="reference radius")
    ax.set_ylabel("field magnitude (uT)")
    ax.set_yscale("log")
    ax.legend(loc="upper right", fontsize="small")
    ax.grid(True, alpha=0.3)

    ax = axes[1][0]
    ax.step(*decimate(t, steps["accuracy"].to_numpy()), where="post", color="black", linewidth=0.9)
    if attempts is not None and len(attempts):
        ta = _seconds(attempts, t0)
        adopted = attempts["adopted"].to_numpy() == 1
        passed = attempts["passed"].to_numpy() == 1
        first = adopted & ~passed  # a refused oval fit's sphere centre, taken at level 1
        ax.scatter(ta[adopted & passed], np.full((adopted & passed).sum(), 3.25), marker="v",
                   color="#2ca02c", label="fit adopted")
        if first.any():
            ax.scatter(ta[first], np.full(first.sum(), 1.25), marker="v", color="#ff7f0e",
                       label="refused, its sphere centre taken as a first offset")
        ax.scatter(ta[passed & ~adopted], np.full((passed & ~adopted).sum(), 3.25), marker="v",
                   color="gray", label="passed, not adopted")
        refused = ~passed
        ax.scatter(ta[refused], np.full(refused.sum(), -0.25), marker="x", color="#d62728",
                   label="fit refused")
        counts = attempts[refused]["bound"].value_counts()
        text = ", ".join(f"{k} {v}" for k, v in counts.items())
        if text:
            ax.text(0.01, 0.5, "refused by: " + text, transform=ax.transAxes, fontsize="small")
        ax.legend(loc="center right", fontsize="small")
    else:
        ax.text(0.01, 0.5, "no fit attempted: no batch was ever complete", transform=ax.transAxes,
                fontsize="small")
    ax.set_ylim(-0.6, 3.6)
    ax.set_yticks([0, 1, 2, 3])
    ax.set_ylabel("accuracy level")
    ax.grid(True, alpha=0.3)

    ax = axes[2][0]
    if quality is not None and len(quality):
        tq = _seconds(quality, t0)
        _series(ax, tq, 100 * quality["coverage"].to_numpy(), color="#9467bd",
                label="directions covered so far (%)")
    if attempts is not None and len(attempts):
        ax.scatter(_seconds(attempts, t0), 100 * attempts["coverage"].to_numpy(), s=12, color="black",
                   label="directions covered by each attempt's batch (%)")
    ax.set_ylim(0, 105)
    ax.set_ylabel("coverage (%)")
    ax.legend(loc="upper left", fontsize="small")
    if quality is not None and len(quality) and "batch" in quality:
        fill = ax.twinx()
        _series(fill, _seconds(quality, t0), quality["batch"].to_numpy(), color="gray", linewidth=0.6,
                label="samples in the batch")
        fill.set_ylabel("samples in the batch", color="gray")
        fill.set_ylim(bottom=0)
        fill.legend(loc="upper right", fontsize="small")
    ax.grid(True, alpha=0.3)

    ax = axes[3][0]
    if quality is not None and len(quality) and np.isfinite(quality["offset_distance"]).any():
        tq = _seconds(quality, t0)
        d = quality["offset_distance"].to_numpy()
        _series(ax, tq, d, color="black", linewidth=0.8, label="offset in force - reference (uT)")
        ax.axhline(OFFSET_TOLERANCE_UT, color="#d62728", linestyle=":", linewidth=0.9,
                   label=f"{OFFSET_TOLERANCE_UT:.0f} uT")
        acc = steps["accuracy"].to_numpy()
        if len(acc) == len(d):
            label = "accuracy 3 with a far offset"
            for a, b in _spans(tq, (acc == 3) & (d > OFFSET_TOLERANCE_UT)):
                ax.axvspan(a, b, color="#d62728", alpha=0.15, label=label)
                label = None
        ax.set_yscale("log")
        ax.set_ylim(bottom=max(1e-3, np.nanmin(d) / 2) if np.isfinite(d).any() else 0.1)
        ax.legend(loc="upper right", fontsize="small")
    else:
        ax.text(0.5, 0.5, "no reference: offset quality unknown", ha="center", transform=ax.transAxes)
    ax.set_ylabel("distance (uT)")
    ax.set_xlabel("time (s)")
    ax.grid(True, alpha=0.3)
    fig.suptitle("calibration over time: field, accuracy and attempts, coverage, offset quality")
    fig.tight_layout()
    return fig


def _rotation_matrices(truth):
    q = truth[["qw", "qx", "qy", "qz"]].to_numpy(dtype=np.float64)
    q /= np.linalg.norm(q, axis=1, keepdims=True)
    w, x, y, z = q.T
    r = np.empty((len(q), 3, 3))
    r[:, 0, 0] = 1 - 2 * (y * y + z * z)
    r[:, 0, 1] = 2 * (x * y - w * z)
    r[:, 0, 2] = 2 * (x * z + w * y)
    r[:, 1, 0] = 2 * (x * y + w * z)
    r[:, 1, 1] = 1 - 2 * (x * x + z * z)
    r[:, 1, 2] = 2 * (y * z - w * x)
    r[:, 2, 0] = 2 * (x * z - w * y)
    r[:, 2, 1] = 2 * (y * z + w * x)
    r[:, 2, 2] = 1 - 2 * (x * x + y * y)
    return r


def _rot(axis, angle):
    c, s = np.cos(angle), np.sin(angle)
    m = np.zeros((len(angle), 3, 3))
    a, b = [(1, 2), (0, 2), (0, 1)][axis]
    m[:, axis, axis] = 1
    m[:, a, a] = c
    m[:, b, b] = c
    sign = -1 if axis == 1 else 1  # rotation about y: [[c, 0, s], [0, 1, 0], [-s, 0, c]]
    m[:, a, b] = -sign * s
    m[:, b, a] = sign * s
    return m


def _azimuth_of(r, level):
    """Azimuth (deg, [0, 360)) of R = Rz(-azimuth) L, taking the z turn closest
    to R L^T."""
    m = r @ np.transpose(level, (0, 2, 1))
    turn = np.arctan2(m[:, 1, 0] - m[:, 0, 1], m[:, 0, 0] + m[:, 1, 1])
    return np.degrees(-turn) % 360.0


def truth_angles(truth, hw_gyro):
    """True azimuth, pitch, roll (deg) in the angle order of the path that made
    the output: hw_gyro 1 reads the attitude like the gyroscope path
    (R = Rz(-azimuth) Ry(-roll) Rx(-pitch)); hw_gyro 0 like the compass path
    (roll and pitch from the vertical, the field levelled about y first, the
    azimuth folded by 180 while 90 < |pitch| < 140)."""
    r = _rotation_matrices(truth)
    g = r[:, 2, :]  # the phone-frame up direction, as a still accelerometer sees it
    roll = np.arcsin(np.clip(g[:, 0], -1, 1))
    if hw_gyro == 1:
        pitch = -np.arctan2(r[:, 2, 1], r[:, 2, 2])
        level = _rot(1, -roll) @ _rot(0, -pitch)
        az = _azimuth_of(r, level)
    else:
        # The compass path: pitch = atan2(-g.y, +-g.x sin r + g.z cos r), the
        # sign minus face down; the field levelled with the rows below and the
        # azimuth atan2(-X, Y) of it. With pitch and roll both non-zero these
        # angles are not one rotation, so the azimuth is that of a horizontal
        # north field seen through the same levelling, as the library sees it.
        sign = np.where(g[:, 2] < 0, -1.0, 1.0)
        pitch = np.arctan2(-g[:, 1], sign * g[:, 0] * np.sin(roll) + g[:, 2] * np.cos(roll))
        sp, cp, sr, cr = np.sin(pitch), np.cos(pitch), np.sin(roll), np.cos(roll)
        down = np.abs(np.degrees(pitch)) > 90
        north = r[:, 1, :]  # the world's north in phone coordinates
        x = np.where(down, -cr, cr) * north[:, 0] - sr * north[:, 2]
        y = (sp * sr * north[:, 0] + np.where(down, -cp, cp) * north[:, 1]
             + np.where(down, -sp * cr, sp * cr) * north[:, 2])
        az = np.degrees(np.arctan2(-x, y)) % 360.0
        p = np.abs(np.degrees(pitch))
        az = np.where((p > 90) & (p < 140), (az - 180.0) % 360.0, az)
    upright = np.degrees(np.arcsin(np.clip(np.maximum(np.abs(r[:, 2, 1]), np.abs(r[:, 2, 0])), 0, 1)))
    return az, np.degrees(pitch), np.degrees(roll), upright > 90 - AZIMUTH_HIDDEN_DEG


def _upright_from_gravity(steps):
    g = steps[["gravity_x", "gravity_y", "gravity_z"]].to_numpy(dtype=np.float64)
    n = np.linalg.norm(g, axis=1)
    with np.errstate(invalid="ignore", divide="ignore"):
        up = np.maximum(np.abs(g[:, 0]), np.abs(g[:, 1])) / n
    return np.degrees(np.arcsin(np.clip(np.nan_to_num(up), 0, 1))) > 90 - AZIMUTH_HIDDEN_DEG


def orientation(steps, truth=None, hw_gyro=0, t_from=None, t_to=None):
    """Azimuth, pitch and roll of the library, beside the truth converted in the
    same angle order, with one constant heading offset removed from the truth
    and the azimuth hidden where the phone stands near vertical."""
    t0 = steps["t_ns"].iloc[0]
    steps = _window(steps, t0, t_from, t_to)
    t = _seconds(steps, t0)
    fig, axes = _figure(3, 1, sharex=True)
    hidden = _upright_from_gravity(steps)
    lib = {"azimuth": steps["azimuth"].to_numpy(dtype=np.float64).copy(),
           "pitch": steps["pitch"].to_numpy(dtype=np.float64),
           "roll": steps["roll"].to_numpy(dtype=np.float64)}
    tru = None
    note = ""
    if truth is not None and len(truth):
        truth = _window(truth, t0, t_from, t_to)
        tt = _seconds(truth, t0)
        az, pitch, roll, up = truth_angles(truth, hw_gyro)
        # The truth at the steps' times decides where the azimuth is hidden.
        idx = np.clip(np.searchsorted(tt, t), 0, len(tt) - 1)
        hidden = up[idx]
        az_at = az[idx]
        ok = ~hidden & np.isfinite(lib["azimuth"])
        offset = 0.0
        if ok.any():
            d = np.radians(lib["azimuth"][ok] - az_at[ok])
            offset = math.degrees(math.atan2(np.sin(d).mean(), np.cos(d).mean()))
        az = (az + offset) % 360.0
        az[up] = np.nan
        tru = {"azimuth": az, "pitch": pitch, "roll": roll}
        note = (f"; truth in the {'gyroscope' if hw_gyro == 1 else 'compass'} path's angle order, "
                f"heading offset {offset:+.1f} deg removed")
    lib["azimuth"][hidden] = np.nan
    for ax, name in zip(axes[:, 0], ("azimuth", "pitch", "roll")):
        ax.plot(*decimate(t, lib[name]), ".", markersize=2, label=f"library {name}")
        if tru is not None:
            ax.plot(*decimate(tt, tru[name]), ".", markersize=1, color="gray", label=f"true {name}")
        ax.set_ylabel(f"{name} (deg)")
        ax.legend(loc="upper right", fontsize="small")
        ax.grid(True, alpha=0.3)
    axes[0][0].set_title(f"azimuth hidden where the phone's x or y axis is within {AZIMUTH_HIDDEN_DEG:.0f} "
                         "deg of vertical", fontsize="small")
    axes[-1][0].set_xlabel("time (s)")
    fig.suptitle(f"orientation (hwGyro {hw_gyro}){note}")
    fig.tight_layout()
    return fig


def errors(errors_df, t_from=None, t_to=None):
    """Heading and tilt error of every output over time beside the accuracy."""
    cols = errors_df
    if t_from is not None:
        cols = cols[cols["t_s"] >= t_from]
    if t_to is not None:
        cols = cols[cols["t_s"] <= t_to]
    # An output that never changes on the path is not scored: all empty.
    outputs = [c[: -len("_heading")] for c in cols.columns
               if c.endswith("_heading") and np.isfinite(cols[c].to_numpy(dtype=np.float64)).any()]
    fig, axes = _figure(max(1, len(outputs)), 1, sharex=True)
    t = cols["t_s"].to_numpy(dtype=np.float64)
    for ax, name in zip(axes[:, 0], outputs):
        for kind in ("heading", "tilt"):
            v = cols[f"{name}_{kind}"].to_numpy(dtype=np.float64)
            rms = math.sqrt(np.nanmean(v * v)) if np.isfinite(v).any() else math.nan
            _series(ax, t, v, linewidth=0.6, label=f"{kind} error (RMS {rms:.1f})")
        ax.set_ylabel(f"{name} (deg)")
        ax.grid(True, alpha=0.3)
        ax.legend(loc="upper left", fontsize="small")
        level = ax.twinx()
        level.step(*decimate(t, cols["accuracy"].to_numpy()), where="post", color="gray", linewidth=0.8)
        level.set_ylim(-0.3, 3.3)
        level.set_yticks([0, 1, 2, 3])
        level.set_ylabel("accuracy", color="gray")
    axes[-1][0].set_xlabel("time (s)")
    fig.suptitle("attitude error against the truth (one constant heading offset removed per output); "
                 "gray: calibration accuracy level")
    fig.tight_layout()
    return fig
