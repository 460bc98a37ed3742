"""qvnlib.reference runs qvn_reference: the attitude it returns tracks a
simulation's truth, and bad input raises with the tool's message."""

import numpy as np
import pytest

import qvnlib
import qvnlib.reference


def test_tracks_the_simulated_truth_and_writes_a_truth_file(sim, tmp_path):
    ref = qvnlib.reference.compute(sim / "events.csv", rate_hz=50)
    assert tuple(ref.attitude.columns) == qvnlib.reference.COLUMNS
    assert "magnetometer calibration" in ref.report
    truth = qvnlib.read_truth(sim / "gt.csv")
    # Both on the simulator's 20 ms grid: compare at equal times, from 5 s on.
    both = ref.attitude.merge(truth, on="t_ns", suffixes=("", "_true"))
    both = both[both["t_ns"] > truth["t_ns"].iloc[0] + 5e9]
    assert len(both) > 500

    # Tilt: the angle between the true and the estimated up vectors seen from
    # the phone (third row of each rotation; the sign of q does not matter).
    def up(w, x, y, z):
        return np.stack([2 * (x * z - w * y), 2 * (y * z + w * x), 1 - 2 * (x * x + y * y)], 1)
    est = up(*(both[c].to_numpy() for c in ("qw", "qx", "qy", "qz")))
    true = up(*(both[c + "_true"].to_numpy() for c in ("qw", "qx", "qy", "qz")))
    tilt = np.degrees(np.arccos(np.clip(np.sum(est * true, axis=1), -1, 1)))
    assert np.sqrt(np.mean(tilt ** 2)) < 2.0
    path = tmp_path / "ref.csv"
    ref.write(path)
    assert len(qvnlib.read_truth(path)) == len(ref.attitude)


def test_bad_input_raises_with_the_message(tmp_path):
    with pytest.raises(ValueError, match="missing.csv"):
        qvnlib.reference.compute(tmp_path / "missing.csv")
    with pytest.raises(ValueError, match="--smoother"):
        qvnlib.reference.compute(tmp_path / "missing.csv", nonsense=1)
