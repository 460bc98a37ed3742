"""Sessions: several recordings replayed in one library life.

A phone calibrates its magnetometer long before a walk starts; replaying the
walk alone from a fresh library makes the calibration converge inside the
scored span. A session puts the recordings one after another on one clock
(each later recording moved so that its first event follows the previous
one's last event by ``gap_s``), so that one replay runs them all, and moves the
truth of a recording by the same amount.

    s = qvnlib.sessions.concatenate(["magcal/events.csv", "walk/events.csv"])
    run = qvnlib.replay(s.events, hw_gyro=1, truth=s.truth_of(-1, "walk/gt.csv"),
                        score_from_s=s.starts_s[-1] + 10)

``qvnlib.replay([a, b], ...)`` does the same for the events alone. Written out
as one file (the lines of each recording with their times moved), a session
replayed by qvn_replay gives the same bits.
"""

from __future__ import annotations

import os
from dataclasses import dataclass

import numpy as np
import pandas as pd

from . import _core

DEFAULT_GAP_S = 0.02  # one magnetometer period at 50 Hz


@dataclass
class Session:
    events: "_core.EventList"  # all recordings on the first one's clock
    shifts_ns: list            # what was added to each recording's times
    starts_s: list             # where each recording starts, seconds from the first event
    labels: list

    def truth_of(self, index: int, truth, gt_shift_ms: float = 0) -> "_core.Truth":
        """The truth of recording ``index`` (path, frame or Truth) on the session's
        clock, with its own clock offset ``gt_shift_ms`` applied too."""
        from . import _truth  # the package's converter: paths, frames, Truth
        shift = self.shifts_ns[index] + int(round(gt_shift_ms * 1e6))
        return _truth(truth).shifted(shift, f"{self.labels[index]} truth")


def _one(recording) -> "_core.EventList":
    from . import _event_list
    if isinstance(recording, (list, tuple)):
        raise TypeError("events: a path, a DataFrame or a structured array (t_ns, sensor, x, y, z) "
                        f"for each recording of a session, not {type(recording).__name__}")
    return _event_list(recording)


def concatenate(recordings, gap_s: float = DEFAULT_GAP_S) -> Session:
    """One event list from recordings (paths, frames or event lists) in order."""
    recordings = list(recordings)
    if not recordings:
        raise ValueError("a session needs at least one recording")
    if not gap_s > 0:
        raise ValueError(f"gap_s must be > 0, not {gap_s!r}")
    parts, shifts, starts, labels = [], [], [], []
    end = None
    t_first = None
    for k, rec in enumerate(recordings):
        a = _one(rec).arrays()
        labels.append(os.fspath(rec) if isinstance(rec, (str, os.PathLike)) else f"recording {k}")
        if len(a["t_ns"]) == 0:
            raise ValueError(f"{labels[-1]}: no events")
        t = np.asarray(a["t_ns"], dtype=np.int64)
        shift = 0 if end is None else end + int(round(gap_s * 1e9)) - int(t[0])
        t = t + shift
        if t_first is None:
            t_first = int(t[0])
        shifts.append(shift)
        starts.append((int(t[0]) - t_first) / 1e9)
        end = int(t[-1])
        parts.append((t, a["sensor"], a["x"], a["y"], a["z"]))
    t, sensor, x, y, z = (np.concatenate([p[i] for p in parts]) for i in range(5))
    events = _core.EventList.from_arrays(t, sensor.astype(np.int8), x, y, z, " + ".join(labels))
    return Session(events, shifts, starts, labels)


def write_concatenated(paths, out_path, gap_s: float = DEFAULT_GAP_S) -> list:
    """Writes the recordings' lines as one event file, each later one's times
    moved as ``concatenate`` moves them (values kept as written); returns the
    shifts. For checking a session against qvn_replay, and for other tools."""
    shifts, end = [], None
    with open(out_path, "w") as out:
        out.write("t_ns,sensor,x,y,z\n")
        for path in paths:
            frame = pd.read_csv(path, dtype=str)
            t = frame["t_ns"].astype(np.int64).to_numpy()
            shift = 0 if end is None else end + int(round(gap_s * 1e9)) - int(t[0])
            shifts.append(shift)
            end = int(t[-1]) + shift
            frame["t_ns"] = (t + shift).astype(str)
            frame.to_csv(out, header=False, index=False)
    return shifts
