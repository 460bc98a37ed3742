"""qvnlib.plots: the angle orders the truth is drawn in, decimation that keeps
extremes, and the calibrated-sample selection; every figure drawn once from a
small synthetic replay."""
import importlib.util
import math
import os

import numpy as np
import pandas as pd
import pytest

import matplotlib  # noqa: E402

matplotlib.use("Agg")

# The module is pure Python: loaded from the source tree as a file, so the
# test needs neither the package's compiled part nor an installation.
_PATH = os.path.join(os.path.dirname(__file__), "..", "..", "python", "qvnlib", "plots.py")
_spec = importlib.util.spec_from_file_location("qvnlib_plots", _PATH)
plots = importlib.util.module_from_spec(_spec)
_spec.loader.exec_module(plots)


def rot(axis, deg):
    return plots._rot(axis, np.radians(np.atleast_1d(float(deg))))[0]


def quat(r):
    """Phone-to-world quaternion (w, x, y, z) of a rotation matrix."""
    w = math.sqrt(max(0.0, 1 + r[0, 0] + r[1, 1] + r[2, 2])) / 2
    if w > 1e-6:
        return [w, (r[2, 1] - r[1, 2]) / (4 * w), (r[0, 2] - r[2, 0]) / (4 * w), (r[1, 0] - r[0, 1]) / (4 * w)]
    x = math.sqrt(max(0.0, 1 + r[0, 0] - r[1, 1] - r[2, 2])) / 2
    return [(r[2, 1] - r[1, 2]) / (4 * x), x, (r[0, 1] + r[1, 0]) / (4 * x), (r[0, 2] + r[2, 0]) / (4 * x)]


def truth_of(matrices):
    return pd.DataFrame([[i] + quat(m) for i, m in enumerate(matrices)], columns=["t_ns", "qw", "qx", "qy", "qz"])


def compass_attitude(a, p, r):
    """Phone-to-world rotation whose compass-path angles are (a, p, r): the
    levelling rows the library forms (face down below), a turn by -azimuth, and
    the 180-degree fold of 90 < |pitch| < 140. Exact when pitch or roll is 0
    (otherwise the path's angles are not one rotation)."""
    sp, cp, sr, cr = (math.sin(math.radians(p)), math.cos(math.radians(p)), math.sin(math.radians(r)),
                      math.cos(math.radians(r)))
    if abs(p) > 90:
        row0, row1 = np.array([-cr, 0, -sr]), np.array([sp * sr, -cp, -sp * cr])
    else:
        row0, row1 = np.array([cr, 0, -sr]), np.array([sp * sr, cp, sp * cr])
    fold = 180 if 90 < abs(p) < 140 else 0
    return rot(2, -(a + fold)) @ np.array([row0, row1, np.cross(row0, row1)])


# (azimuth, pitch, roll) in degrees, away from the hidden upright band.
GYRO_ANGLES = [(30, 10, -20), (200, -35, 15), (350, 50, 40), (90, 0, 0), (120, -60, -10), (250, 120, 30)]
COMPASS_ANGLES = [(30, 10, 0), (200, 0, 15), (350, 50, 0), (90, 0, -40), (250, 120, 0), (10, -150, 0)]


@pytest.mark.parametrize("hw_gyro", [0, 1])
def test_truth_angles_round_trip_in_each_paths_order(hw_gyro):
    angles = GYRO_ANGLES if hw_gyro == 1 else COMPASS_ANGLES
    mats = [rot(2, -a) @ rot(1, -r) @ rot(0, -p) if hw_gyro == 1 else compass_attitude(a, p, r)
            for a, p, r in angles]
    az, pitch, roll, hidden = plots.truth_angles(truth_of(mats), hw_gyro)
    want = np.array(angles, dtype=float)
    assert np.allclose(roll, want[:, 2], atol=1e-6)
    assert np.allclose(pitch, want[:, 1], atol=1e-6)
    d = (az - want[:, 0] + 180) % 360 - 180
    assert np.allclose(d, 0, atol=1e-6)
    assert not hidden.any()


def test_orders_differ_when_pitch_and_roll_combine():
    # The same attitude read in the two orders: the pitch is not the same
    # number, which is why the truth must follow the replay's path.
    m = rot(2, -10) @ rot(1, -50) @ rot(0, -70)
    _, p_gyro, _, _ = plots.truth_angles(truth_of([m]), 1)
    _, p_compass, _, _ = plots.truth_angles(truth_of([m]), 0)
    assert abs(p_gyro[0] - 70) < 1e-6
    assert abs(p_compass[0] - p_gyro[0]) > 5


@pytest.mark.parametrize("m, hidden", [
    (rot(0, -90), True),   # pitch 90: the phone stands upright, y axis up
    (rot(1, -85), True),   # on its side: x axis nearly vertical
    (rot(0, -60), False),
    (np.eye(3), False),
])
def test_azimuth_hidden_only_near_vertical(m, hidden):
    assert plots.truth_angles(truth_of([m]), 1)[3][0] == hidden


def test_decimate_keeps_extremes_and_bounds_the_count():
    t = np.linspace(0, 3600, 180000)
    y = np.sin(t)
    y[12345], y[150000] = 50.0, -70.0
    y[200:300] = np.nan
    td, yd = plots.decimate(t, y, columns=1000)
    assert len(td) <= 2000
    assert yd.max() == 50.0 and yd.min() == -70.0
    assert np.all(np.diff(td) >= 0) and td[0] >= 0 and td[-1] <= 3600
    # the peak stays within its column's time
    assert abs(td[np.argmax(yd)] - t[12345]) <= 3600 / 1000
    assert len(plots.decimate(t[:100], y[:100])[0]) == 100
    mid, mean, lo, hi = plots.envelope(t, y, columns=1000)
    assert hi.max() == 50.0 and lo.min() == -70.0
    assert np.all(lo <= mean) and np.all(mean <= hi)
    assert plots.envelope(t[:100], y[:100]) is None


def test_calibrated_mask_starts_at_the_first_new_offset():
    steps = pd.DataFrame({"offset_x": [0, 0, 5, 5, 6], "offset_y": [0] * 5, "offset_z": [0] * 5})
    assert plots.calibrated_mask(steps).tolist() == [False, False, True, True, True]
    never = pd.DataFrame({"offset_x": [1, 1], "offset_y": [0, 0], "offset_z": [0, 0]})
    assert not plots.calibrated_mask(never).any()


def test_fit_sphere_recovers_a_planted_centre_and_refuses_a_plane():
    u = np.random.default_rng(1).normal(size=(500, 3))
    u /= np.linalg.norm(u, axis=1, keepdims=True)
    c, r = plots.fit_sphere(40 * u + [10, -300, 60])
    assert np.allclose(c, [10, -300, 60], atol=1e-6) and abs(r - 40) < 1e-6
    ring = np.column_stack([np.cos(np.arange(50)), np.sin(np.arange(50)), np.zeros(50)])
    assert plots.fit_sphere(ring) is None


# qvn_plot draws every figure from a real replay (plot_tool_test); this one
# pins what the field figure shows of a planted calibration.
def test_field_figure_shows_only_calibrated_samples_as_calibrated():
    n = 400
    t = np.arange(n) * 20_000_000
    u = np.random.default_rng(2).normal(size=(n, 3))
    u /= np.linalg.norm(u, axis=1, keepdims=True)
    raw = 45 * u + [30, -20, 40]
    adopted = np.arange(n) >= 200
    off = np.where(adopted[:, None], [30.0, -20.0, 40.0], 0.0)
    steps = pd.DataFrame({"t_ns": t, "accuracy": np.where(adopted, 3, 0)})
    for k, a in enumerate("xyz"):
        steps[f"raw_{a}"], steps[f"cal_{a}"], steps[f"offset_{a}"] = raw[:, k], raw[:, k] - off[:, k], off[:, k]
    attempts = pd.DataFrame({"t_ns": [t[200]], "passed": [1], "adopted": [1], "coverage": [0.8], "bound": [""],
                             "radius": [45.0], "logged_radius": [45], "offset_sensor_x": [30.0],
                             "offset_sensor_y": [-20.0], "offset_sensor_z": [40.0]})
    fig = plots.field_clouds(steps, attempts)
    assert fig.get_size_inches()[0] * fig.dpi == plots.FIG_WIDTH_PX
    assert fig.axes[3].collections[0].get_offsets().shape[0] == 200
