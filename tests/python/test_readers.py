"""Readers and simulation: the tools' validation and messages, frames in and out."""

import filecmp
import re
import subprocess

import numpy as np
import pandas as pd
import pytest

import qvnlib
from conftest import WALK

GOOD_EVENTS = "t_ns,sensor,x,y,z\n1000,acc,0,0,9.8\n2000,mag,10,20,30\n"

# (kind, file name, content): the reader raises with the message the replay
# tool prints, naming the file and the line.
BAD_FILES = [
    ("events", "unknown-sensor", "t_ns,sensor,x,y,z\n1000,acc,0,0,9.8\n2000,baro,1,2,3\n"),
    ("events", "missing-field", "1000,acc,0,0\n"),
    ("events", "not-a-number", "1000,acc,0,zero,9.8\n"),
    ("events", "bad-time", "1000,acc,0,0,9.8\n\n# comment\n12x,gyr,0,0,0\n"),
    ("truth", "backwards", "t_ns,qw,qx,qy,qz\n2000,1,0,0,0\n1000,1,0,0,0\n"),
    ("truth", "short-line", "1000,1,0,0\n"),
]


@pytest.mark.parametrize("kind,name,content", BAD_FILES, ids=[c[1] for c in BAD_FILES])
def test_bad_files_get_the_tools_message(kind, name, content, tmp_path, run_tool):
    path, events = tmp_path / f"{name}.csv", tmp_path / "events.csv"
    path.write_text(content)
    events.write_text(GOOD_EVENTS)
    reader = qvnlib.read_events if kind == "events" else qvnlib.read_truth
    with pytest.raises(ValueError) as raised:
        reader(path)
    message = str(raised.value)
    assert message.startswith(f"{path}:")  # file and line named
    done = run_tool(path) if kind == "events" else run_tool("--gt", path, events)
    assert done.returncode == 2 and message in done.stderr
    if kind == "events":
        with pytest.raises(ValueError, match=re.escape(message)):
            qvnlib.replay(str(path))


@pytest.mark.parametrize("reader", [qvnlib.read_events, qvnlib.read_truth,
                                    qvnlib.read_calibration_truth, qvnlib.replay])
def test_missing_files_raise_file_not_found(reader, tmp_path):
    with pytest.raises(FileNotFoundError, match="nowhere.csv"):
        reader(str(tmp_path / "nowhere.csv"))


def test_events_frame_has_the_file_values():
    frame = qvnlib.read_events(WALK)
    assert list(frame.columns) == ["t_ns", "sensor", "x", "y", "z"]
    assert frame["t_ns"].dtype == np.int64 and frame["x"].dtype == np.float64
    raw = pd.read_csv(WALK, float_precision="round_trip")
    assert (frame["sensor"].astype(str) == raw["sensor"]).all()
    np.testing.assert_array_equal(frame[["t_ns", "x", "y", "z"]].to_numpy(),
                                  raw[["t_ns", "x", "y", "z"]].to_numpy())


def _frame(**columns):
    return pd.DataFrame(columns)


# replay() keywords with a bad events or truth frame, the error and its message.
@pytest.mark.parametrize("kwargs,error,message", [
    ({"events": _frame(t_ns=[1.0], sensor=["acc"], x=[0], y=[0], z=[9.8])},
     TypeError, "t_ns must hold integers"),
    ({"events": _frame(t_ns=[1, 2], sensor=["acc", "baro"], x=0.0, y=0.0, z=0.0)},
     ValueError, "row 1: unknown sensor 'baro'"),
    ({"events": _frame(t_ns=[1], sensor=[7], x=[0.0], y=[0.0], z=[0.0])},
     ValueError, "unknown sensor code 7"),
    ({"events": _frame(t_ns=[1], sensor=["acc"], x=[0.0], y=[0.0])}, ValueError, "no column 'z'"),
    ({"events": _frame(t_ns=[1], sensor=["acc"], x=["a"], y=[0.0], z=[0.0])},
     TypeError, "column x must hold numbers"),
    ({"events": [(1, "acc", 0, 0, 9.8)]}, TypeError, "a path, a DataFrame or a structured array"),
    ({"truth": _frame(t_ns=[2, 1], qw=1.0, qx=0.0, qy=0.0, qz=0.0)},
     ValueError, "row 1: time goes backwards"),
    ({"truth": _frame(t_ns=[1], qw=[0.0], qx=[0.0], qy=[0.0], qz=[0.0])},
     ValueError, "row 0: the quaternion is zero"),
    ({"truth": _frame(t_ns=[1], qw=[1.0])}, ValueError, "no column 'qx'"),
])
def test_bad_frames_raise(kwargs, error, message):
    with pytest.raises(error, match=message):
        qvnlib.replay(**{"events": WALK, "to_s": 1, **kwargs})


def test_simulate_writes_what_the_tool_writes(tmp_path):
    options = dict(motion="still:1,figure8:4", seed=9, offset=(30, -20, 50), rate_gyr=0)
    sim = qvnlib.simulate(tmp_path / "py", **options)
    subprocess.run([qvnlib._simulate_path(), "--out-dir", tmp_path / "tool", "--motion",
                    "still:1,figure8:4", "--seed", "9", "--offset", "30,-20,50",
                    "--rate-gyr", "0"], check=True, capture_output=True)
    for name in ("events.csv", "gt.csv", "truth.txt"):
        assert filecmp.cmp(tmp_path / "py" / name, tmp_path / "tool" / name, shallow=False)
    assert "gyr" not in set(sim.events["sensor"].astype(str))
    np.testing.assert_array_equal(sim.calibration["offset_uT"], [30, -20, 50])
    assert len(sim.truth) == (sim.events["sensor"] == "mag").sum()


@pytest.mark.parametrize("options,message", [
    ({"motion": "hop:3"}, "hop"),
    ({"no_such_option": 1}, "no-such-option"),
])
def test_simulate_refuses_bad_options_with_the_tools_message(options, message):
    with pytest.raises(ValueError, match=message):
        qvnlib.simulate(**options)
