"""Replays from Python against qvn_replay run as a fresh process: the same
bits, the same printed summary and scores, whatever ran before in the process."""

import os
import warnings

import numpy as np
import pandas as pd
import pytest

import qvnlib
from conftest import WALK

# (name, qvn_replay options, the same as replay() keywords)
CASES = [
    ("soft-gyro", [], {}),
    ("gyro", ["--hw-gyro", "1"], {"hw_gyro": 1}),
    ("gyro-skip-early", ["--hw-gyro", "1", "--skip-early-gyro"],
     {"hw_gyro": 1, "skip_early_gyro": True}),
    ("nfc-variant-sets-span",
     ["--hwname", "vask1", "--set", "g_quat_weight_acc_normal=0.05", "--set", "acc_axis[0]=1",
      "--from", "20", "--to", "80"],
     {"hwname": "vask1", "sets": {"g_quat_weight_acc_normal": 0.05, "acc_axis[0]": 1},
      "from_s": 20, "to_s": 80}),
    ("reinit-on-nan-current", ["--hw-gyro", "1", "--reinit-on-nan", "--charging-current",
                               "250000"],
     {"hw_gyro": 1, "reinit_on_nan": True, "charging_current": 250000}),
    ("host-layer-gyro-sets", ["--host-layer", "--hw-gyro", "1", "--set",
                              "g_quat_weight_acc_normal=0.05"],
     {"host_layer": True, "hw_gyro": 1, "sets": {"g_quat_weight_acc_normal": 0.05}}),
]


def tool_steps(path):
    """The tool's CSV with every value parsed back to the exact float32."""
    return pd.read_csv(path, float_precision="round_trip")


def assert_same_bits(steps, expected):
    assert list(steps.columns) == list(qvnlib.STEP_COLUMNS) == list(expected.columns)
    assert len(steps) == len(expected)
    for name in steps.columns:
        ours = steps[name].to_numpy()
        theirs = expected[name].to_numpy().astype(ours.dtype)
        differ = ours != theirs
        if ours.dtype == np.float32:
            # Every bit, except NaN payloads, which a CSV does not carry.
            differ = (ours.view(np.uint32) != theirs.view(np.uint32)) & \
                ~(np.isnan(ours) & np.isnan(theirs))
        bad = np.flatnonzero(differ)
        assert bad.size == 0, f"{name} differs first at step {bad[0] if bad.size else -1}"


@pytest.mark.parametrize("name,args,kwargs", CASES, ids=[c[0] for c in CASES])
def test_replay_gives_the_tools_bits_and_summary(name, args, kwargs, run_tool, tmp_path):
    done = run_tool(*args, "--out", tmp_path / "tool.csv", WALK)
    assert done.returncode == 0, done.stderr
    # A different replay first: whatever it leaves in the library must not
    # reach the next one.
    qvnlib.replay(WALK, hw_gyro=1 - kwargs.get("hw_gyro", 0), sets={"g_enable_softGyro_rv": 2},
                  hwname="vask2", charging_current=900000, skip_early_gyro=True)
    with warnings.catch_warnings(record=True) as caught:
        warnings.simplefilter("always")
        run = qvnlib.replay(WALK, **kwargs)
    # The tool's stderr holds its input warnings only (the log is silent).
    assert [str(w.message) for w in caught if w.category is qvnlib.InputWarning] == \
        done.stderr.splitlines()
    run.write_csv(tmp_path / "py.csv")
    assert (tmp_path / "py.csv").read_bytes() == (tmp_path / "tool.csv").read_bytes()
    assert_same_bits(run.steps, tool_steps(tmp_path / "tool.csv"))
    assert run.summary == done.stdout


def test_set_files_apply_as_the_tool_applies_them(run_tool, tmp_path):
    (tmp_path / "set.txt").write_text("# tuned\ng_lpf_acc_ratio=0.25\nmag_axis[1]=1\n")
    done = run_tool("--set-file", tmp_path / "set.txt", "--set", "g_lpf_acc_ratio=0.5",
                    "--out", tmp_path / "tool.csv", WALK)
    assert done.returncode == 0, done.stderr
    run = qvnlib.replay(WALK, set_file=tmp_path / "set.txt", sets={"g_lpf_acc_ratio": 0.5})
    run.write_csv(tmp_path / "py.csv")
    assert (tmp_path / "py.csv").read_bytes() == (tmp_path / "tool.csv").read_bytes()
    default = qvnlib.replay(WALK)
    assert not default.steps.equals(run.steps)
    (tmp_path / "bad.txt").write_text("g_lpf_acc_ratio=0.25\nnot a line\n")
    with pytest.raises(ValueError, match="bad.txt:2:"):
        qvnlib.replay(WALK, set_file=tmp_path / "bad.txt")


@pytest.mark.parametrize("form", ["frame", "structured array"])
def test_in_memory_events_replay_like_the_file(form):
    frame = qvnlib.read_events(WALK)
    events = frame if form == "frame" else np.rec.fromarrays(
        [frame[c].to_numpy() for c in ("t_ns", "x", "y", "z")] +
        [frame["sensor"].cat.codes.to_numpy()], names="t_ns,x,y,z,sensor")
    by_path = qvnlib.replay(WALK, hw_gyro=1, skip_early_gyro=True)
    by_memory = qvnlib.replay(events, hw_gyro=1, skip_early_gyro=True)
    assert_same_bits(by_memory.steps, by_path.steps)
    np.testing.assert_array_equal(by_memory.qfusion.view(np.uint32),
                                  by_path.qfusion.view(np.uint32))


def test_scores_and_summary_against_truth_match_the_tool(sim, run_tool, tmp_path):
    events, gt, truth = sim / "events.csv", sim / "gt.csv", sim / "truth.txt"
    done = run_tool("--hw-gyro", "1", "--skip-early-gyro", "--gt-shift-ms", "5",
                    "--errors-out", tmp_path / "errors.csv", events)
    assert done.returncode == 0, done.stderr
    run = qvnlib.replay(str(events), hw_gyro=1, skip_early_gyro=True, truth=str(gt),
                        calibration_truth=str(truth), gt_shift_ms=5)
    assert run.summary == done.stdout
    expected = pd.read_csv(tmp_path / "errors.csv")
    assert list(run.errors.columns) == list(expected.columns)
    # The tool prints errors to 3 decimals.
    np.testing.assert_allclose(run.errors.to_numpy(float), expected.to_numpy(float),
                               atol=6e-4, equal_nan=True)
    assert run.accuracy.loc["orientation", "steps"] > 500

    # Scoring again over another span gives the tool's table for that span.
    later = run.score(qvnlib.read_truth(gt), gt_shift_ms=5, score_from_s=15, score_to_s=28)
    done = run_tool("--hw-gyro", "1", "--skip-early-gyro", "--gt-shift-ms", "5",
                    "--score-from", "15", "--score-to", "28", events)
    assert later.table and later.table in done.stdout
    assert later.accuracy.loc["orientation", "steps"] < run.accuracy.loc["orientation", "steps"]


@pytest.mark.parametrize("log,printed,captured", [(False, False, False),
                                                  ("capture", False, True),
                                                  ("stderr", True, False)])
def test_library_log_is_silent_unless_asked(log, printed, captured, capfd):
    run = qvnlib.replay(WALK, from_s=0, to_s=10, log=log)
    out, err = capfd.readouterr()
    assert out == ""
    assert (" lib: " in err) == printed
    assert (len(run.log) > 0) == captured


@pytest.mark.parametrize("kwargs,error", [
    ({"hw_gyro": 2}, ValueError),
    ({"log": "loud"}, ValueError),
    ({"log": "capture", "log_level": "chatty"}, ValueError),
    ({"sets": {"no_such_variable": 1}}, KeyError),
    ({"sets": ["g_quat_weight_acc_normal=fast"]}, ValueError),
    ({"sets": "g_quat_weight_acc_normal=1"}, TypeError),
])
def test_bad_replay_arguments_raise(kwargs, error):
    with pytest.raises(error):
        qvnlib.replay(WALK, to_s=1, **kwargs)


@pytest.mark.parametrize("path,message", [
    ("/nonexistent/libqvnlib.so", "cannot load the library"),
    # The host stand-in loads, but is not the library.
    (os.path.join(os.path.dirname(qvnlib.default_library_path()), "libqvnhost.so"),
     "does not export MAG_LIB_API_INTERFACE"),
])
def test_libraries_that_cannot_be_used_raise(path, message):
    with pytest.raises(OSError, match=message):
        qvnlib.Library(path)
