"""Run.attempts: the calibration attempts the replay tool writes with
--attempts-out, the same rows and values from the Python replay."""
import numpy as np
import pandas as pd

import qvnlib
from conftest import WALK


def test_attempts_match_the_tools_file(run_tool, tmp_path):
    done = run_tool("--attempts-out", tmp_path / "attempts.csv", WALK)
    assert done.returncode == 0, done.stderr
    tool = pd.read_csv(tmp_path / "attempts.csv", keep_default_na=False)
    mine = qvnlib.replay(WALK).attempts
    assert list(mine.columns) == list(tool.columns)
    assert len(mine) == len(tool) > 0
    for c in ["t_ns", "samples", "logged_radius", "passed", "adopted", "level"]:
        assert (mine[c].to_numpy() == tool[c].to_numpy()).all(), c
    for c in ["radius", "coverage", "offset_x", "offset_sensor_z"]:
        assert np.allclose(mine[c].astype(float), tool[c].astype(float), atol=1e-3), c
    assert mine["bound"].tolist() == tool["bound"].tolist()
    # every refusal names its bound, every adoption none
    assert ((mine["bound"] == "") == (mine["passed"] == 1)).all()
