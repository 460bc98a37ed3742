"""libqvnlib from Python: replay recordings, score, tune, simulate.

    import qvnlib
    run = qvnlib.replay("data/phone_walk_flat/events.csv", hw_gyro=1)
    run.steps.plot(x="t_ns", y=["offset_x", "offset_y", "offset_z"])

Every result comes from the code the command-line tools run: the event and
truth readers, the replay loop and the scoring are the tools' own C++
(bound in ``qvnlib._core``); ``replay`` gives the same bits as
``qvn_replay --out`` and ``Run.summary`` the same text it prints. Each replay
starts from the library's load-time state, so replays in one process do not
influence each other. The library's log is dropped unless ``log="capture"``
(kept in ``Run.log``) or ``log="stderr"`` asks for it.

Plots: ``import qvnlib.plots`` (matplotlib; not imported here).
"""

from __future__ import annotations

import os
import shutil
import subprocess
import sys
import tempfile
import threading
import warnings
from dataclasses import dataclass, field
from typing import Any, Mapping

import numpy as np
import pandas as pd

from . import _core

__all__ = [
    "SENSORS", "STEP_COLUMNS", "InputWarning", "Library", "Tunables", "Run", "Score",
    "Simulation", "library", "read_events", "read_truth", "read_calibration_truth",
    "replay", "score", "simulate", "default_library_path",
]

SENSORS = tuple(_core.SENSORS)            # codes 0..3 of the events' sensor column
STEP_COLUMNS = tuple(_core.STEP_COLUMNS)  # the columns of qvn_replay --out
TRUTH_COLUMNS = ("t_ns", "qw", "qx", "qy", "qz")
_LOG_MODES = {False: 0, None: 0, "silent": 0, True: 1, "capture": 1, "stderr": 2}


class InputWarning(UserWarning):
    """What qvn_replay warns about an input (events out of order, early gyroscope)."""


def _beside_package(relative: str) -> str:
    return os.path.normpath(os.path.join(os.path.dirname(__file__), relative))


def _first_existing(env: str, relative: str, build_tree: str, fallback: str) -> str:
    if os.environ.get(env):
        return os.environ[env]
    for candidate in (_beside_package(relative), build_tree):
        if os.path.exists(candidate):
            return candidate
    return fallback


def default_library_path() -> str:
    """$QVN_LIBRARY, else the library installed beside the package, else the build tree's."""
    return _first_existing("QVN_LIBRARY", _core.LIBRARY_FROM_PACKAGE, _core.BUILD_TREE_LIBRARY,
                           "libqvnlib.so")


# ------------------------------------------------------------------ readers

def _existing(path) -> str:
    path = os.fspath(path)
    if not os.path.exists(path):
        raise FileNotFoundError(f"{path}: no such file")
    return path


def _events_frame(events: "_core.EventList") -> pd.DataFrame:
    a = events.arrays()
    sensor = pd.Categorical.from_codes(a["sensor"], categories=list(SENSORS))
    return pd.DataFrame({"t_ns": a["t_ns"], "sensor": sensor, "x": a["x"], "y": a["y"],
                         "z": a["z"]})


def read_events(path) -> pd.DataFrame:
    """Reads an event file ``t_ns,sensor,x,y,z`` as qvn_replay does.

    Returns a frame with ``t_ns`` (int64), ``sensor`` (categorical: acc, gyr,
    mag, cur) and ``x, y, z`` (float64). A malformed line raises ValueError
    naming the file and the line."""
    return _events_frame(_core.EventList.read(_existing(path)))


def read_truth(path) -> pd.DataFrame:
    """Reads a ground truth ``t_ns,qw,qx,qy,qz`` (phone to east-north-up) as the
    scoring does: quaternions normalised, times checked to be in order."""
    t, q = _core.Truth.load(_existing(path)).arrays()
    return pd.DataFrame({"t_ns": t, "qw": q[:, 0], "qx": q[:, 1], "qy": q[:, 2], "qz": q[:, 3]})


def read_calibration_truth(path) -> dict[str, np.ndarray]:
    """Reads a simulation's ``truth.txt`` (offset_uT, soft_iron, ...)."""
    values = _core.CalibrationTruth.load(_existing(path)).values()
    return {k: np.asarray(v, dtype=float) for k, v in values.items()}


def _column(frame, name: str, what: str):
    names = frame.columns if isinstance(frame, pd.DataFrame) else (frame.dtype.names or ())
    if name not in names:
        raise ValueError(f"{what}: no column '{name}' (needs {', '.join(_needed(what))})")
    return np.asarray(frame[name])


def _needed(what: str):
    return ("t_ns", "sensor", "x", "y", "z") if what == "events" else TRUTH_COLUMNS


def _integer_times(t: np.ndarray, what: str) -> np.ndarray:
    if t.dtype.kind not in "iu":
        raise TypeError(f"{what}: column t_ns must hold integers (nanoseconds), not {t.dtype}")
    return t.astype(np.int64)


def _numbers(v: np.ndarray, what: str, name: str) -> np.ndarray:
    if v.dtype.kind not in "biuf":
        raise TypeError(f"{what}: column {name} must hold numbers, not {v.dtype}")
    return v.astype(np.float64)


def _event_list(events) -> "_core.EventList":
    if isinstance(events, _core.EventList):
        return events
    if isinstance(events, (str, os.PathLike)):
        return _core.EventList.read(_existing(events))
    if isinstance(events, (list, tuple)):  # a session: recordings one after another
        from .sessions import concatenate
        return concatenate(events).events
    if not isinstance(events, (pd.DataFrame, np.ndarray)):
        raise TypeError("events: a path, a DataFrame or a structured array "
                        f"(t_ns, sensor, x, y, z), not {type(events).__name__}")
    t = _integer_times(_column(events, "t_ns", "events"), "events")
    sensor = _column(events, "sensor", "events")
    if sensor.dtype.kind in "iu":
        codes = sensor.astype(np.int64)
    else:
        codes = pd.Categorical(sensor, categories=list(SENSORS)).codes.astype(np.int64)
        unknown = np.flatnonzero(codes < 0)
        if unknown.size:
            raise ValueError(f"events: row {unknown[0]}: unknown sensor {sensor[unknown[0]]!r} "
                             f"(one of {', '.join(SENSORS)})")
    bad = np.flatnonzero((codes < 0) | (codes >= len(SENSORS)))
    if bad.size:
        raise ValueError(f"events: row {bad[0]}: unknown sensor code {codes[bad[0]]}")
    x, y, z = (_numbers(_column(events, c, "events"), "events", c) for c in "xyz")
    return _core.EventList.from_arrays(t, codes.astype(np.int8), x, y, z, "<events frame>")


def _truth(truth) -> "_core.Truth":
    if isinstance(truth, _core.Truth):
        return truth
    if isinstance(truth, (str, os.PathLike)):
        return _core.Truth.load(_existing(truth))
    if not isinstance(truth, (pd.DataFrame, np.ndarray)):
        raise TypeError("truth: a path or a frame with t_ns, qw, qx, qy, qz, "
                        f"not {type(truth).__name__}")
    t = _integer_times(_column(truth, "t_ns", "truth"), "truth")
    q = np.stack([_numbers(_column(truth, c, "truth"), "truth", c)
                  for c in ("qw", "qx", "qy", "qz")], axis=1)
    return _core.Truth.from_arrays(t, q, "<truth frame>")


# ----------------------------------------------------------------- tunables

@dataclass(frozen=True)
class TunableInfo:
    name: str
    dtype: np.dtype
    shape: tuple


def _scalar_text(name: str, info: TunableInfo, value) -> str:
    """The value as the tools' --set parser reads it; that parser checks the
    integer ranges, so messages match the tools'."""
    if isinstance(value, (bool, np.bool_)):
        value = int(value)
    if isinstance(value, (int, np.integer)):  # Python ints of any size
        kind = "i"
    else:
        v = np.asarray(value)
        if v.shape != ():
            raise ValueError(f"tunable '{name}': expected one value, got shape {v.shape}")
        kind = v.dtype.kind
        if kind not in "biuf":
            raise TypeError(f"tunable '{name}' ({info.dtype}) takes numbers, not {v.dtype}")
    if info.dtype.kind in "iu":
        if kind == "f":
            raise TypeError(f"tunable '{name}' is {info.dtype}: got the floating-point "
                            f"value {value!r}")
        return str(int(value))
    f = float(value)
    if np.isfinite(f) and abs(f) > float(np.finfo(np.float32).max):
        raise ValueError(f"tunable '{name}' is float32: {value!r} does not fit")
    return repr(f)


def _assignment_texts(infos: Mapping[str, TunableInfo], name: str, value) -> list[str]:
    """``NAME=VALUE`` texts (the tools' --set syntax) for one name and value."""
    base = name.split("[", 1)[0].split(".", 1)[0]
    if base not in infos:
        raise KeyError(f"unknown tunable '{base}'")
    info = infos[base]
    if base != name or np.ndim(value) == 0:
        # An element (NAME[i], NAME[i][j], NAME.x), or one value for every element.
        return [f"{name}={_scalar_text(name, info, value)}"]
    v = np.asarray(value)
    if v.shape != info.shape:
        raise ValueError(f"tunable '{name}' has shape {info.shape}, got {v.shape}")
    return [f"{name}[{k}]={_scalar_text(name, info, x)}" for k, x in enumerate(v.reshape(-1))]


class Tunables(Mapping):
    """Every exported variable of a loaded library, by name.

    ``t[name]`` returns a copy (a numpy scalar or array of the variable's own
    type and shape); ``t.view(name)`` a numpy array over the variable's
    memory, live: it shows every later change and writes go straight into the
    library (use ``t[name] = ...`` for checked writes). ``t[name] = value``
    checks the name, the shape (one value sets every element), the type
    (no floats into integers) and the range before writing anything; elements:
    ``t["NAME[i]"] = v``. ``t.frame()`` lists name, type, shape and value.

    A replay starts from the load-time state: writes made here are gone at the
    next replay; pass them to ``replay(sets=...)`` instead, which writes them
    before and after initialisation as ``qvn_replay --set`` does. After a
    replay the variables show the state it ended in."""

    def __init__(self, lib: "_core.Library"):
        self._lib = lib
        self._info = {name: TunableInfo(name, np.dtype(t), tuple(shape))
                      for name, t, shape, exported in lib.info() if exported}

    def __getitem__(self, name: str):
        v = self.view(name).copy()
        return v[()] if v.shape == () else v

    def __setitem__(self, name: str, value) -> None:
        self._lib.assign(_assignment_texts(self._info, name, value))

    def update(self, values: Mapping[str, Any]) -> None:
        texts = [t for name, v in values.items() for t in _assignment_texts(self._info, name, v)]
        self._lib.assign(texts)

    def view(self, name: str) -> np.ndarray:
        if name not in self._info:
            raise KeyError(f"unknown tunable '{name}'")
        return self._lib.view(name)

    def info(self, name: str) -> TunableInfo:
        if name not in self._info:
            raise KeyError(f"unknown tunable '{name}'")
        return self._info[name]

    def __iter__(self):
        return iter(self._info)

    def __len__(self) -> int:
        return len(self._info)

    def frame(self) -> pd.DataFrame:
        rows = [(n, str(i.dtype), i.shape, self[n]) for n, i in self._info.items()]
        return pd.DataFrame(rows, columns=["name", "type", "shape", "value"]).set_index("name")

    def _sets_texts(self, sets) -> list[str]:
        """The ``NAME=VALUE`` texts of a sets argument (mapping or texts)."""
        if sets is None:
            return []
        if isinstance(sets, Mapping):
            return [t for name, v in sets.items() for t in _assignment_texts(self._info, name, v)]
        if isinstance(sets, str):
            raise TypeError("sets: a mapping {name: value} or a list of 'NAME=VALUE' texts")
        texts = [str(s) for s in sets]
        _core.Library.check_sets(texts)
        return texts


# ------------------------------------------------------------------- replay

@dataclass
class Score:
    """Accuracy against ground truth, as qvn_replay --gt reports it."""
    accuracy: pd.DataFrame  # one row per output: steps, offset, heading/tilt stats, lag
    errors: pd.DataFrame    # per step, the columns of qvn_replay --errors-out
    table: str              # the table qvn_replay prints


def _score_frames(rows: list, errors: dict) -> tuple[pd.DataFrame, pd.DataFrame]:
    return pd.DataFrame(rows).set_index("output"), pd.DataFrame(errors)


@dataclass
class Run:
    """One replay: ``steps`` has one row per calibration step with the columns
    of ``qvn_replay --out`` (float32 values as the library returned them);
    ``qfusion`` the attitude quaternion (w, x, y, z) after each step;
    ``summary`` the text qvn_replay prints; ``accuracy``/``errors`` when a
    truth was given."""
    steps: pd.DataFrame
    qfusion: np.ndarray
    summary: str
    warnings: list
    log: list
    counts: dict
    accuracy: pd.DataFrame | None = None
    errors: pd.DataFrame | None = None
    _run: Any = field(default=None, repr=False)

    @property
    def t0_ns(self) -> int:
        """Time of the first replayed event."""
        return self._run.t0_ns

    @property
    def attempts(self) -> pd.DataFrame:
        """Every calibration attempt, with the columns of qvn_replay --attempts-out."""
        return pd.DataFrame(self._run.attempts())

    def __repr__(self) -> str:
        end = ""
        if len(self.steps):
            x, y, z = self.steps[["offset_x", "offset_y", "offset_z"]].iloc[-1]
            end = (f", final offset ({x:.2f}, {y:.2f}, {z:.2f}) uT, "
                   f"accuracy {self.steps['accuracy'].iloc[-1]}")
        return (f"<qvnlib.Run: {len(self.steps)} steps{end}"
                f"{', scored' if self.accuracy is not None else ''}>")

    def score(self, truth, *, gt_shift_ms: float = 0, warmup_s: float = 10,
              score_from_s: float | None = None, score_to_s: float | None = None,
              lag: bool = True) -> Score:
        """Scores this run against truth (path or frame) as qvn_replay --gt does."""
        rows, errors, table = self._run.score(
            _truth(truth), gt_shift_ms, warmup_s, _or(score_from_s), _or(score_to_s), lag)
        return Score(*_score_frames(rows, errors), table)

    def write_csv(self, path) -> None:
        """Writes the steps exactly as qvn_replay --out does."""
        self._run.write_csv(os.fspath(path))


def _caller_level() -> int:
    """The stack level of the first caller outside this module, for warnings."""
    level, frame = 1, sys._getframe(1)
    while frame is not None and frame.f_code.co_filename == __file__:
        level, frame = level + 1, frame.f_back
    return level


def _or(v, default=-1.0):
    return default if v is None else float(v)


class Library:
    """A loaded ``libqvnlib.so`` (default: ``default_library_path()``).

    Loading a library that is already loaded in this process shares it: the
    state belongs to the process, and every replay starts from the state saved
    when it was first loaded."""

    def __init__(self, path=None):
        self._lib = _core.Library(os.fspath(path) if path is not None else default_library_path())
        self.tunables = Tunables(self._lib)

    @property
    def path(self) -> str:
        return self._lib.path

    def reset(self) -> None:
        """Back to the load-time state (every replay does this by itself)."""
        self._lib.reset()

    def replay(self, events, hw_gyro: int = 0, sets=None, hwname: str | None = None,
               host_layer: bool = False, truth=None, *, set_file=None, calibration_truth=None,
               skip_early_gyro: bool = False, reinit_on_nan: bool = False,
               charging_current: int = 0, from_s: float = 0, to_s: float | None = None,
               gt_shift_ms: float = 0, warmup_s: float = 10, score_from_s: float | None = None,
               score_to_s: float | None = None, lag: bool = True, log=False,
               log_level: str = "debug") -> Run:
        """Replays events as ``qvn_replay`` does, with the same option meanings.

        events: a path, or a frame (or structured array) with t_ns, sensor, x, y, z,
        or a list of them: a session (``qvnlib.sessions``), replayed in one life.
        hw_gyro: 0 or 1 (which call runs fusion). sets: {name: value} or
        ["NAME=VALUE", ...], written before and after initialisation, after
        those of set_file (a qvn_tune set file, as --set-file).
        hwname: ro.boot.hwname. host_layer: through the host layer, as
        --host-layer (skip_early_gyro and reinit_on_nan are then the layer's
        business and ignored; the summary ends with its counters).
        truth: path or frame (t_ns, qw..qz) to score against;
        calibration_truth: a simulation's truth.txt for the summary.
        log: False (dropped), "capture" (kept in Run.log) or "stderr"."""
        if hw_gyro not in (0, 1):
            raise ValueError(f"hw_gyro must be 0 or 1, not {hw_gyro!r}")
        if log not in _LOG_MODES:
            raise ValueError(f"log must be False, 'capture' or 'stderr', not {log!r}")
        texts = self.tunables._sets_texts(sets)
        if set_file is not None:
            texts = _core.read_set_file(_existing(set_file)) + texts
        event_list = _event_list(events)
        gt = _truth(truth) if truth is not None else None
        cal = (_core.CalibrationTruth.load(_existing(calibration_truth))
               if calibration_truth is not None else None)
        run = self._lib.replay(
            event_list, int(hw_gyro), texts, hwname, bool(skip_early_gyro), bool(reinit_on_nan),
            bool(host_layer), int(charging_current), float(from_s), _or(to_s), gt,
            float(gt_shift_ms), float(warmup_s), _or(score_from_s), _or(score_to_s), bool(lag), cal,
            _LOG_MODES[log], _core.log_priority(log_level))
        for line in run.warnings:
            warnings.warn(line, InputWarning, stacklevel=_caller_level())
        result = Run(steps=pd.DataFrame(run.columns()), qfusion=run.qfusion(),
                     summary=run.summary, warnings=list(run.warnings), log=run.log,
                     counts=run.counts, _run=run)
        if run.scored:
            result.accuracy, result.errors = _score_frames(run.accuracy(), run.errors())
        return result


_default: Library | None = None
_default_lock = threading.Lock()


def library(path=None) -> Library:
    """The library at path, or the default one (loaded once per process)."""
    global _default
    if path is not None:
        return Library(path)
    with _default_lock:
        if _default is None:
            _default = Library()
        return _default


def replay(events, hw_gyro: int = 0, sets=None, hwname: str | None = None,
           host_layer: bool = False, truth=None, *, library_path=None, **options) -> Run:
    """``Library.replay`` on the default library (or the one at library_path)."""
    return library(library_path).replay(events, hw_gyro, sets, hwname, host_layer, truth,
                                        **options)


def score(run: Run, truth, **options) -> Score:
    """``Run.score``: accuracy of a replay against truth, as qvn_replay --gt."""
    return run.score(truth, **options)


# ----------------------------------------------------------------- simulate

@dataclass
class Simulation:
    events: pd.DataFrame       # as read_events returns it
    truth: pd.DataFrame        # gt.csv: true orientation at every magnetometer sample
    calibration: dict          # truth.txt: offset_uT, soft_iron, ...
    folder: str | None = None  # where the files are (None: removed after reading)


def _simulate_path() -> str:
    return _first_existing("QVN_SIMULATE", _core.SIMULATE_FROM_PACKAGE,
                           _core.BUILD_TREE_SIMULATE, "qvn_simulate")


def _option_text(value) -> str:
    if isinstance(value, (list, tuple, np.ndarray)):
        return ",".join(repr(float(v)) if isinstance(v, float) else str(v)
                        for v in np.asarray(value).reshape(-1).tolist())
    return str(value)


def simulate(out_dir=None, **options) -> Simulation:
    """Runs ``qvn_simulate`` with its options as keywords (``motion="still:2,figure8:24"``,
    ``seed=3``, ``offset=(40, -25, 60)``, ``rate_mag=50``, ...) and reads what it wrote.

    With out_dir the files stay there (replay ``out_dir/events.csv`` for the same
    summary as the tool); without, they are read and removed."""
    args = [_simulate_path()]
    for key, value in options.items():
        args += ["--" + key.replace("_", "-"), _option_text(value)]
    folder = os.fspath(out_dir) if out_dir is not None else tempfile.mkdtemp(prefix="qvn_sim.")
    try:
        done = subprocess.run(args + ["--out-dir", folder], capture_output=True, text=True,
                              timeout=600)
        if done.returncode != 0:
            raise ValueError(done.stderr.strip() or f"qvn_simulate failed ({done.returncode})")
        return Simulation(read_events(os.path.join(folder, "events.csv")),
                          read_truth(os.path.join(folder, "gt.csv")),
                          read_calibration_truth(os.path.join(folder, "truth.txt")),
                          folder if out_dir is not None else None)
    finally:
        if out_dir is None:
            shutil.rmtree(folder, ignore_errors=True)
