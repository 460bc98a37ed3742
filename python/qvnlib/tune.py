"""Searching a device's tunable set against ground truth (``qvn_tune``).

A set is only worth shipping if it holds on motions it was not tuned on, so:

- an *item* is a recording (or a span of it) scored **cold** (replayed alone
  from the load-time state) and, when a calibration recording primes it,
  **warm** (the calibration recording, then the item, in one library life:
  ``qvnlib.sessions``); both count;
- the objective is the mean heading RMS of one output over every training
  item, warm and cold, and a candidate is *refused* when any training item
  gets worse than the default set by more than ``margin`` degrees, when the
  tilt RMS of any item exceeds its limit, or when any output loses scored
  steps (NaN or frozen) compared with the default set;
- every report lists each item, never only the mean.

The search is Optuna's (seeded TPE, CMA-ES or random sampling, median pruning
after the first item), and a study lives in its storage: an SQLite file by
default, resumable after an interruption, or a PostgreSQL URL that workers on
several machines share.
"""

from __future__ import annotations

import argparse
import hashlib
import json
import math
import os
import stat
import subprocess
import sys
import time
import warnings
import zlib
from dataclasses import dataclass

import numpy as np

from . import _core, _truth, library
from .sessions import concatenate

EXIT_RUNTIME = 1
EXIT_USAGE = 2

OUTPUTS = ("orientation", "rv", "game_rv", "geomag", "qfusion")

# Presets per path and concern; they combine (--preset fusion --preset calibration).
PRESETS = {
    # The gyroscope path's complementary filter (hwGyro = 1) and the soft
    # gyroscope, which also feeds the rotation vector there.
    "fusion": (1, ["g_quat_weight_acc_delta=0:0.28",
                   "g_quat_weight_mag_delta=0:0.297",
                   "g_quat_weight_acc_normal=0.0005:0.05:log",
                   "g_quat_weight_mag_normal=0.0001:0.02:log",
                   "g_enable_softGyro_rv=0|1",
                   "g_lpf_acc_ratio=0.05:1",
                   "g_lpf_mag_ratio=0.05:1"]),
    # hwGyro = 0: the quaternion weights never act; the soft gyroscope's
    # smoothing and the field's Kalman filter do.
    "nogyro": (0, ["g_lpf_acc_ratio=0.05:1",
                   "g_lpf_mag_ratio=0.05:1",
                   "g_enable_mag_kalman_filter=0|1|2|3",
                   "g_m_kmf_r=0:2"]),
    # What the calibration driver reads at every step: the sample distance
    # and radius limits of each state (calibrated, not calibrated, disturbed),
    # the radius bounds and the interference threshold.
    "calibration": (None, ["g_qvn_cailDataDist=2:15",
                           "g_qvn_cailDataDist_calied=5:30",
                           "g_qvn_cailDataDist_interfd=2:15",
                           "g_cali_radius_threshold_wide_calied=1:8",
                           "g_cali_radius_threshold_rate_calied=0.05:0.5",
                           "g_cali_radius_threshold_wide_uncalied=1:8",
                           "g_cali_radius_threshold_rate_uncalied=0.05:0.5",
                           "g_cali_radius_threshold_wide_interfd=1:8",
                           "g_cali_radius_threshold_rate_interfd=0.05:0.5",
                           "g_cali_radius_threshold_max=50:100",
                           "g_cali_radius_threshold_min=10:35",
                           "k7q_interference_threshold=300:2000:log"]),
    # The azimuth and field moving averages (time bases, read when the rate is
    # detected) and the 45-degree compensation.
    "conditioning": (None, ["g_enable_mag_moving_average=0|1",
                            "g_o_movWei=0.05:5:log",
                            "g_o_static=0.05:5:log",
                            "g_m_movWei=0.05:5:log",
                            "g_m_static=0.05:5:log",
                            "g_enable_mag_data_compensation=0|1",
                            "g_optimal_compensation_mode=0|1|2|3|4|5"]),
}

# Left out of the presets because writing them achieves nothing: the library
# rewrites them itself after the host could have written them.
REWRITTEN = {
    "g_cali_radius_threshold_wide": "the driver copies the current state's value in at every step",
    "g_cali_radius_threshold_rate": "the driver copies the current state's value in at every step",
    "dsc_mag_distance": "derived from g_qvn_cailDataDist* and the rate at every step",
    "MAG_MVAVG_WEIGHT_MOVING": "rate tracking copies g_m_movWei in",
    "MAG_MVAVG_WEIGHT_STATIC": "rate tracking copies g_m_static in",
    "ORI_MVAVG_WEIGHT_MOVING": "rate tracking copies g_o_movWei in",
    "ORI_MVAVG_WEIGHT_STATIC": "rate tracking copies g_o_static in",
    "g_mag_interference_threshold": "copied into working variables by initialisation only",
    "g_mag_interference_range_1": "copied into working variables by initialisation only",
    "g_mag_interference_range_2": "copied into working variables by initialisation only",
}


class UsageError(Exception):
    """Bad command line or input: exit code 2."""


class RuntimeFailure(Exception):
    """The search could not run or found nothing: exit code 1."""


# ------------------------------------------------------------------- ranges

@dataclass
class Dimension:
    target: str
    kind: str                 # uniform, log, int, choice
    lo: float = 0.0
    hi: float = 0.0
    choices: tuple = ()
    text: str = ""


def parse_range(text: str) -> Dimension:
    """``NAME=LO:HI``, ``NAME=LO:HI:log``, ``NAME=LO:HI:int`` or ``NAME=V1|V2|...``;
    every value it can produce must suit the tunable's type."""
    name, eq, rhs = text.partition("=")
    if not eq or not name or not rhs:
        raise UsageError(f"'{text}' is not of the form NAME=LO:HI[:log|:int] or NAME=V1|V2|...")
    if "|" in rhs:
        d = Dimension(name, "choice", choices=tuple(rhs.split("|")), text=text)
        probes = list(d.choices)
    else:
        p = rhs.split(":")
        try:
            lo, hi = float(p[0]), float(p[1])
            ok = len(p) in (2, 3) and lo <= hi and math.isfinite(lo) and math.isfinite(hi)
        except (ValueError, IndexError):
            ok = False
        kind = p[2] if ok and len(p) == 3 else "uniform"
        if not ok or kind not in ("uniform", "log", "int") or (kind == "log" and lo <= 0):
            raise UsageError(f"bad range '{text}' (LO:HI with LO <= HI, ':log' needs LO > 0)")
        d = Dimension(name, kind, lo, hi, text=text)
        probes = [repr(lo), repr(hi)]
    try:
        dtype = library().tunables.info(name.split("[")[0].split(".")[0]).dtype
    except KeyError as e:
        raise UsageError(f"range '{text}': {e.args[0]}") from None
    if d.kind != "choice" and dtype.kind in "iu":
        for v in (d.lo, d.hi):
            if v != int(v):
                raise UsageError(f"range '{text}': {v:g} is not an integer ({name} is {dtype})")
        d.kind = "int"
        probes = [str(int(d.lo)), str(int(d.hi))]
    for v in probes:
        try:
            _core.Library.check_sets([f"{name}={v}"])
        except (KeyError, ValueError) as e:
            raise UsageError(f"range '{text}': {e.args[0] if e.args else e}") from None
    return d


def preset_ranges(names, hw_gyro: int) -> list:
    out = []
    for name in names:
        if name not in PRESETS:
            raise UsageError(f"unknown preset '{name}' (one of {', '.join(PRESETS)})")
        path, ranges = PRESETS[name]
        if path is not None and path != hw_gyro:
            raise UsageError(f"preset {name} acts only with --hw-gyro {path}")
        out += [r for r in ranges if r.split("=")[0] not in {x.split("=")[0] for x in out}]
    return out


def suggest(trial, d: Dimension):
    if d.kind == "choice":
        return trial.suggest_categorical(d.target, list(d.choices))
    if d.kind == "int":
        return trial.suggest_int(d.target, int(math.ceil(d.lo)), int(math.floor(d.hi)))
    return trial.suggest_float(d.target, d.lo, d.hi, log=d.kind == "log")


def _short(v) -> str:
    return str(v) if isinstance(v, (str, int, np.integer)) else f"{float(v):.4g}"


def value_text(v) -> str:
    return str(v) if isinstance(v, (str, int, np.integer)) else f"{float(v):.6g}"


# -------------------------------------------------------------------- items

@dataclass
class Item:
    """One training or test item: a recording (span), its truth, its prime."""
    text: str
    path: str
    from_s: float = 0.0
    to_s: float | None = None
    score_from_s: float | None = None
    score_to_s: float | None = None
    gt: str | None = None
    gt_shift_ms: float = 0.0
    gt_max_sigma: float | None = None
    warmup_s: float = 10.0
    prime: str | None = None


MAX_ITEM_VALUE = 1e9  # so that every time in nanoseconds fits 64 bits
_KEYS = {"from": "from_s", "to": "to_s", "score-from": "score_from_s", "score-to": "score_to_s",
         "gt-shift-ms": "gt_shift_ms", "gt-max-sigma": "gt_max_sigma", "warmup": "warmup_s"}


def parse_item(text: str, warmup_s: float = 10.0, prime: str | None = None) -> Item:
    """``EVENTS.csv[,from=S][,to=S][,score-from=S][,score-to=S][,gt=FILE|still]
    [,gt-shift-ms=MS][,gt-max-sigma=DEG][,warmup=S][,prime=EVENTS.csv|none]``"""
    fields = text.split(",")
    item = Item(text, fields[0], warmup_s=warmup_s, prime=prime)
    for f in fields[1:]:
        key, _, value = f.partition("=")
        if key == "gt":
            item.gt = value
        elif key == "prime":
            item.prime = None if value == "none" else value
        elif key in _KEYS:
            try:
                v = float(value)
            except ValueError:
                v = math.nan
            low = -MAX_ITEM_VALUE if key == "gt-shift-ms" else 0.0
            if not low <= v <= MAX_ITEM_VALUE:  # NaN fails too
                raise UsageError(f"recording '{text}': bad item '{f}' (seconds 0 to "
                                 f"{MAX_ITEM_VALUE:g}, milliseconds within ±{MAX_ITEM_VALUE:g})")
            setattr(item, _KEYS[key], v)
        else:
            raise UsageError(f"recording '{text}': bad item '{f}' (from=S, to=S, score-from=S, "
                             "score-to=S, gt=FILE|still, gt-shift-ms=MS, gt-max-sigma=DEG, warmup=S, "
                             "prime=FILE)")
    if not item.path or (item.to_s is not None and item.to_s <= item.from_s):
        raise UsageError(f"recording '{text}': needs a path and to > from")
    if item.prime and item.from_s > 0:
        raise UsageError(f"recording '{text}': from= cannot follow a prime recording "
                         "(score-from= scores a later span of the whole recording)")
    for p in (item.path, item.prime, item.gt if item.gt != "still" else None):
        if p and not os.path.isfile(p):
            raise RuntimeFailure(f"{p}: cannot open the file (recording '{text}')")
    return item


def still_truth(events: "_core.EventList", label: str) -> "_core.Truth":
    """The truth of a phone that does not move: one attitude, its vertical the
    mean accelerometer direction (the heading offset is removed by scoring)."""
    a = events.arrays()
    acc = np.stack([a["x"], a["y"], a["z"]], axis=1)[a["sensor"] == 0]
    if len(acc) == 0:
        raise UsageError(f"{label}: gt=still needs accelerometer events")
    up = acc.mean(axis=0)
    up /= np.linalg.norm(up)
    axis = np.cross(up, [0.0, 0.0, 1.0])
    s, c = np.linalg.norm(axis), float(up[2])
    half = math.atan2(s, c) / 2
    axis = axis / s if s > 1e-12 else np.array([1.0, 0.0, 0.0])
    q = np.array([math.cos(half), *(axis * math.sin(half))])
    t = np.arange(int(a["t_ns"][0]), int(a["t_ns"][-1]) + 1, 10_000_000, dtype=np.int64)
    return _core.Truth.from_arrays(t, np.tile(q, (len(t), 1)), f"{label} (still)")


@dataclass
class Evaluation:
    """One replay of an item: cold or warm, with everything the replay needs."""
    item: Item
    role: str              # train or test
    warm: bool
    events: object
    truth: object
    options: dict
    label: str = ""


def _events(path: str) -> "_core.EventList":
    try:
        return _core.EventList.read(path)
    except (ValueError, RuntimeError, OSError) as e:
        raise UsageError(str(e)) from None


def evaluations_of(item: Item, role: str) -> list:
    events = _events(item.path)
    gt = item.gt or os.path.join(os.path.dirname(item.path) or ".", "gt.csv")
    try:
        truth = still_truth(events, item.path) if item.gt == "still" else _truth(gt)
    except (ValueError, RuntimeError, OSError) as e:
        raise UsageError(str(e)) from None
    if item.gt_max_sigma is not None:
        if not truth.has_sigma:
            raise UsageError(f"recording '{item.text}': gt-max-sigma= needs a truth with a "
                             "sigma_deg column (a reference attitude)")
        truth.set_max_sigma(item.gt_max_sigma)
    name = "/".join(os.path.normpath(item.path).split(os.sep)[-2:])
    span = f"{item.from_s:g}-{'end' if item.to_s is None else f'{item.to_s:g}'} s"
    if item.score_from_s is not None or item.score_to_s is not None:
        span += (f", scored {item.from_s if item.score_from_s is None else item.score_from_s:g}-"
                 f"{'end' if item.score_to_s is None else f'{item.score_to_s:g}'}")
    t = events.arrays()["t_ns"]
    length = (int(t[-1]) - int(t[0])) / 1e9 if len(t) else 0.0
    first = item.from_s + item.warmup_s if item.score_from_s is None else item.score_from_s
    last = min([length] + [v for v in (item.to_s, item.score_to_s) if v is not None])
    if not first < last:
        raise UsageError(f"recording '{item.text}': the scored span lies outside the replayed "
                         f"events (scored from {first:g} s, events up to {last:g} s)")
    cold_score_from = item.score_from_s
    out = [Evaluation(item, role, False, events, truth, dict(
        from_s=item.from_s, to_s=item.to_s, gt_shift_ms=item.gt_shift_ms,
        warmup_s=item.warmup_s, score_from_s=cold_score_from, score_to_s=item.score_to_s),
        f"{name} {span}")]
    if item.prime:
        session = concatenate([_events(item.prime), events])
        start = session.starts_s[-1]
        shifted = session.truth_of(-1, truth, item.gt_shift_ms)
        rel = lambda v: None if v is None else start + v  # noqa: E731
        out.append(Evaluation(item, role, True, session.events, shifted, dict(
            from_s=0.0, to_s=rel(item.to_s), gt_shift_ms=0.0, warmup_s=item.warmup_s,
            score_from_s=start + (item.warmup_s if item.score_from_s is None
                                  else item.score_from_s),
            score_to_s=rel(item.score_to_s)), f"{name} {span}"))
    return out


# ---------------------------------------------------------------- objective

@dataclass
class Scores:
    """Per output: heading RMS, h95, tilt RMS, t95, scored steps, not finite, constant."""
    rows: dict

    def of(self, output: str) -> dict:
        return self.rows[output]


def evaluate(ev: Evaluation, config: dict, sets: list) -> Scores:
    run = library(config.get("lib")).replay(
        ev.events, config["hw_gyro"], sets=sets, hwname=config.get("hwname"), truth=ev.truth,
        skip_early_gyro=config["skip_early_gyro"], lag=False, **ev.options)
    acc = run.accuracy
    rows = {}
    for out in OUTPUTS:
        r = acc.loc[out]
        rows[out] = dict(h=float(r["heading_rms"]), h95=float(r["heading_p95"]),
                         t=float(r["tilt_rms"]), t95=float(r["tilt_p95"]),
                         steps=int(r["steps"]), not_finite=int(r["not_finite"]),
                         constant=bool(r["constant"]))
    return Scores(rows)


def scored(row: dict) -> bool:
    return not row["constant"] and row["steps"] > 0 and math.isfinite(row["h"])


def refusal(candidate: Scores, default: Scores, output: str, margin: float,
            tilt_limit: float) -> str | None:
    """Why a candidate is refused on one evaluation, or None."""
    c, d = candidate.of(output), default.of(output)
    if not scored(c):
        return f"{output} not scored"
    for out in OUTPUTS:
        co, do = candidate.of(out), default.of(out)
        if scored(do) and (not scored(co) or co["steps"] < do["steps"]
                           or co["not_finite"] > do["not_finite"]):
            return f"{out} lost steps ({co['steps']} of {do['steps']} scored)"
    if c["h"] > d["h"] + margin:
        return f"heading RMS {c['h']:.2f} > default {d['h']:.2f} + {margin:g}"
    if c["t"] > tilt_limit:
        return f"tilt RMS {c['t']:.2f} > {tilt_limit:.2f}"
    return None


HEARTBEAT_S = 2  # a worker silent for three heartbeats has lost its trial
# A refused candidate is evaluated on every training replay like the others
# (unless pruned) and its value is raised by PENALTY per degree beyond the
# limits, so that the sampler learns where the limits are; the result is
# always the best candidate that was not refused.
PENALTY = 10.0
UNSCORED = 180.0


class Objective:
    def __init__(self, evals: list, dims: list, config: dict, budget: int):
        self.train = [e for e in evals if e.role == "train"]
        self.dims, self.config, self.budget = dims, config, budget
        self.base = list(config["sets"])
        self.defaults = [evaluate(e, config, self.base) for e in self.train]
        out = config["objective"]
        for e, s in zip(self.train, self.defaults):
            if not scored(s.of(out)):
                raise RuntimeFailure(f"{e.label}: the default set's {out} is not scored there "
                                     "(no truth in the scored span, or the output never changes "
                                     "on this path)")
        if config["max_tilt"] is not None:
            self.tilt_limits = [config["max_tilt"]] * len(self.train)
        else:
            self.tilt_limits = [s.of(out)["t"] + config["tilt_slack"] for s in self.defaults]
        self.default_value = float(np.mean([s.of(out)["h"] for s in self.defaults]))

    def sets_of(self, params: dict) -> list:
        return self.base + [f"{d.target}={value_text(params[d.target])}" for d in self.dims
                            if d.target in params]

    def __call__(self, trial):
        import optuna
        if _over_budget(trial, self.budget):
            trial.set_user_attr("over_budget", True)
            raise optuna.TrialPruned()
        trial.set_user_attr("worker", f"{os.uname().nodename}:{os.getpid()}")
        default = trial.user_attrs.get("default", False)
        params = {} if default else {d.target: suggest(trial, d) for d in self.dims}
        sets = self.sets_of(params)
        out, margin = self.config["objective"], self.config["margin"]
        headings, excess = [], 0.0
        for k, (ev, default) in enumerate(zip(self.train, self.defaults)):
            s = evaluate(ev, self.config, sets)
            why = refusal(s, default, out, margin, self.tilt_limits[k])
            if why is not None and "refused" not in trial.user_attrs:
                trial.set_user_attr("refused", f"{ev.label} {'warm' if ev.warm else 'cold'}: {why}")
            excess += violation(s, default, out, margin, self.tilt_limits[k])
            headings.append(s.of(out)["h"] if scored(s.of(out)) else UNSCORED)
            value = float(np.mean(headings)) + PENALTY * excess
            trial.report(value, k)
            if k + 1 < len(self.train) and trial.should_prune():
                raise optuna.TrialPruned()
        trial.set_user_attr("violation", excess)
        return value


def violation(candidate: Scores, default: Scores, output: str, margin: float,
              tilt_limit: float) -> float:
    """How far a candidate is beyond the limits on one replay (degrees; lost
    steps count as UNSCORED): what the sampler learns to avoid."""
    c, d = candidate.of(output), default.of(output)
    if refusal(candidate, default, output, margin, tilt_limit) is None:
        return 0.0
    if not scored(c):
        return UNSCORED
    lost = any(scored(default.of(o)) and (not scored(candidate.of(o))
               or candidate.of(o)["steps"] < default.of(o)["steps"]
               or candidate.of(o)["not_finite"] > default.of(o)["not_finite"]) for o in OUTPUTS)
    return (UNSCORED if lost else 0.0) + max(0.0, c["h"] - d["h"] - margin) + \
        max(0.0, c["t"] - tilt_limit)


def _over_budget(trial, budget: int) -> bool:
    """Whether the trials before this one (finished, pruned or still running;
    not failed ones) already make the budget: workers never overshoot it."""
    import optuna
    S = optuna.trial.TrialState
    before = sum(1 for t in trial.study.get_trials(deepcopy=False)
                 if t.number < trial.number and t.state in (S.COMPLETE, S.PRUNED, S.RUNNING)
                 and not t.user_attrs.get("over_budget"))
    return before >= budget


def counted(study) -> int:
    import optuna
    done = (optuna.trial.TrialState.COMPLETE, optuna.trial.TrialState.PRUNED)
    return sum(1 for t in study.get_trials(deepcopy=False)
               if t.state in done and not t.user_attrs.get("over_budget"))


# ------------------------------------------------------------------ sampler

def numbered_random_sampler(seed: int):
    """Random points that depend on the seed and the trial's number only, so
    any number of workers, in any order, draws the same point for trial n."""
    import optuna

    class NumberedRandomSampler(optuna.samplers.RandomSampler):
        def sample_independent(self, study, trial, name, distribution):
            key = [seed & 0xFFFFFFFF, trial.number, zlib.crc32(name.encode())]
            self._rng = np.random.RandomState(key)
            return super().sample_independent(study, trial, name, distribution)

    return NumberedRandomSampler(seed=seed)


def make_sampler(kind: str, seed: int, workers: int):
    import optuna
    if kind == "random":
        return numbered_random_sampler(seed)
    if kind == "cmaes":
        return optuna.samplers.CmaEsSampler(seed=seed, warn_independent_sampling=False,
                                            independent_sampler=numbered_random_sampler(seed))
    sampler = optuna.samplers.TPESampler(seed=seed, n_startup_trials=10, multivariate=True,
                                         warn_independent_sampling=False,
                                         constant_liar=workers > 1)
    if hasattr(sampler, "_random_sampler"):  # the start-up points, numbered too
        sampler._random_sampler = numbered_random_sampler(seed)
    return sampler


# ----------------------------------------------------------------- the CLI

HELP = """\
Searches tunable values that lower the heading RMS error of one output on the
training items while no training item gets worse than with the default set by
more than --margin, the tilt RMS of each stays within its limit and no output
loses scored steps; then scores the default and the found set on every item,
training and test, cold and warm. Each evaluation replays from the library's
load-time state, exactly as qvn_replay does (sets written before and after
initialisation).

REC: EVENTS.csv[,from=S][,to=S][,score-from=S][,score-to=S][,gt=FILE][,gt-shift-ms=MS][,warmup=S]
     [,gt-max-sigma=DEG][,prime=EVENTS.csv|none]
  seconds from the recording's first event; gt.csv beside it by default;
  gt-max-sigma=DEG: a reference attitude's samples with a larger sigma_deg are not scored;
  gt=still: the phone does not move (no truth file). With a prime (prime= or --prime) the item
  is scored cold (alone) and warm (after the prime recording, in one life).
Presets (combine): fusion (hwGyro 1), nogyro (hwGyro 0), calibration, conditioning.
Exit codes: 0 done, 1 the search failed or found nothing, 2 bad command line or input.
"""


class _Parser(argparse.ArgumentParser):
    def error(self, message):
        raise UsageError(f"{message} (see --help)")


def _nonneg(kind):
    def parse(text):
        try:
            v = kind(text)
        except ValueError:
            raise argparse.ArgumentTypeError(f"bad value '{text}'") from None
        if not (v >= 0 and math.isfinite(v)):
            raise argparse.ArgumentTypeError(f"bad value '{text}'")
        return v
    return parse


def _output(text):
    if text not in OUTPUTS:
        raise argparse.ArgumentTypeError(f"bad value '{text}' for --objective "
                                         f"(one of {', '.join(OUTPUTS)})")
    return text


def _check_output(path: str) -> None:
    """An output must be a regular file (or not exist yet) in an existing folder."""
    kinds = ((os.path.isdir, "a folder"), (lambda p: stat.S_ISCHR(os.stat(p).st_mode),
              "a character device"), (lambda p: stat.S_ISBLK(os.stat(p).st_mode),
              "a block device"), (lambda p: stat.S_ISFIFO(os.stat(p).st_mode), "a FIFO"))
    if os.path.exists(path):
        for test, kind in kinds:
            if test(path):
                raise RuntimeFailure(f"cannot write {path}: it is {kind}")
    elif not os.path.isdir(os.path.dirname(os.path.abspath(path))):
        raise RuntimeFailure(f"cannot write {path}: no such folder")


def parser() -> argparse.ArgumentParser:
    p = _Parser(prog="qvn_tune", description=HELP,
                formatter_class=argparse.RawDescriptionHelpFormatter)
    a = p.add_argument
    a("--train", action="append", default=[], metavar="REC", help="training item (repeatable)")
    a("--test", action="append", default=[], metavar="REC", help="held-out item (repeatable)")
    a("--prime", metavar="EVENTS.csv", help="calibration recording that primes every item")
    a("--range", action="append", default=[], metavar="R",
      help="NAME=LO:HI, NAME=LO:HI:log, NAME=LO:HI:int or NAME=V1|V2|...")
    a("--preset", action="append", default=[], metavar="P",
      help="fusion, nogyro, calibration, conditioning (repeatable or comma-separated)")
    a("--objective", default="orientation", type=_output)
    a("--margin", type=_nonneg(float), default=0.5,
      help="degrees a training item may get worse than the default (default 0.5)")
    a("--max-tilt-rms", type=_nonneg(float),
      help="tilt limit (default: each item's default + slack)")
    a("--tilt-slack", type=_nonneg(float), default=1.0)
    a("--seed", type=_nonneg(int), default=1)
    a("--budget", type=_nonneg(int), default=150,
      help="trials in the study, the default set's included")
    a("--time-limit", type=_nonneg(float), default=None, help="stop this process after S seconds")
    a("--sampler", default="tpe", choices=("tpe", "cmaes", "random"))
    a("--no-pruning", action="store_true",
      help="evaluate every trial in full (which trials a median rule prunes depends on the "
      "order in which several workers finish them)")
    a("--storage", help="study storage URL (default sqlite:///qvn_tune_study.db in the current "
      "folder; postgresql://user@host/db for several machines)")
    a("--study", help="study name (default: one derived from the search)")
    a("--workers", type=_nonneg(int), default=1, help="worker processes on this machine")
    a("--worker", action="store_true", help=argparse.SUPPRESS)
    a("--hw-gyro", type=int, choices=(0, 1), default=0)
    a("--hwname")
    a("--set", action="append", default=[], metavar="NAME=VALUE")
    a("--set-file")
    a("--lib")
    a("--keep-early-gyro", action="store_true")
    a("--warmup", type=_nonneg(float), default=10.0)
    a("--top", type=_nonneg(int), default=8, help="best trials listed (default 8)")
    a("--out-set", default="tuned_set.txt")
    a("--out-c", default="tuned_set.c")
    return p


def _search_id(args, dims, evals) -> str:
    what = dict(ranges=[d.text for d in dims], seed=args.seed, sampler=args.sampler,
                objective=args.objective, margin=args.margin, tilt=args.max_tilt_rms,
                slack=args.tilt_slack, hw_gyro=args.hw_gyro, sets=args.set,
                train=[e.item.text for e in evals if e.role == "train"], prime=args.prime)
    return hashlib.sha1(json.dumps(what, sort_keys=True).encode()).hexdigest()[:12]


def _storage(url: str | None):
    import optuna
    url = url or "sqlite:///qvn_tune_study.db"
    try:
        return optuna.storages.RDBStorage(url, heartbeat_interval=HEARTBEAT_S,
                                          grace_period=3 * HEARTBEAT_S)
    except Exception as e:  # the driver's own message names what is wrong
        raise RuntimeFailure(f"storage {url}: {str(e).splitlines()[0]}") from None


def fail_lost_trials(study, storage, grace_s: float = 3 * HEARTBEAT_S) -> None:
    """Fails the running trials of workers that are gone.

    Optuna fails a trial whose heartbeat has stopped, but it only looks at
    trials that have one: a worker killed after creating its trial and before
    the trial's first heartbeat leaves it running for good, and as a running
    trial it holds a place in the budget. A live worker records that first
    heartbeat at once, so such a trial older than the grace period is lost."""
    import datetime
    import optuna
    from optuna.storages._rdb import models
    S = optuna.trial.TrialState
    optuna.storages.fail_stale_trials(study)
    now = datetime.datetime.now()  # the clock Optuna stamps a trial's start with
    session = storage.scoped_session()
    try:
        running = session.query(models.TrialModel).filter(
            models.TrialModel.study_id == study._study_id,
            models.TrialModel.state == S.RUNNING).all()
        lost = [t.trial_id for t in running if not t.heartbeats and t.datetime_start is not None
                and (now - t.datetime_start).total_seconds() > grace_s]
    finally:
        session.close()
    for trial_id in lost:  # through the study, whose cache of trials must see it
        study._storage.set_trial_state_values(trial_id, state=S.FAIL)


def _progress(start: float, budget: int, first_done: int):
    def callback(study, trial):
        done = counted(study)
        accepted = _best(study)
        best = f"{accepted[0].value:.2f} deg" if accepted else "-"
        rate = (time.monotonic() - start) / max(1, done - first_done)
        left = max(0, budget - done) * rate
        print(f"qvn_tune: {done}/{budget} trials, best {best}, {time.monotonic() - start:.0f} s, "
              f"about {left:.0f} s left", file=sys.stderr, flush=True)
        if done >= budget:
            study.stop()
    return callback


def prepare(args):
    """Checks the command line; returns (config, dims, evaluations)."""
    if args.worker and args.workers != 1:
        raise UsageError("--worker runs one worker")
    if not args.train:
        raise UsageError("no --train recording (see --help)")
    for path in (args.out_set, args.out_c):
        _check_output(path)
    presets = [p for v in args.preset for p in v.split(",") if p]
    ranges = preset_ranges(presets, args.hw_gyro) + list(args.range)
    if not ranges:
        raise UsageError("nothing to tune: --preset or --range")
    if args.lib:
        os.environ["QVN_LIBRARY"] = args.lib
    base = []
    if args.set_file:
        try:
            base = _core.read_set_file(args.set_file)
        except ValueError as e:
            raise UsageError(f"--set-file: {e}") from None
    for s in args.set:
        try:
            _core.Library.check_sets([s])
        except (KeyError, ValueError) as e:
            raise UsageError(f"--set: {e.args[0] if e.args else e}") from None
    base += args.set
    dims = [parse_range(r) for r in ranges]
    if args.prime and not os.path.exists(args.prime):
        raise UsageError(f"--prime: {args.prime}: no such file")
    evals = []
    for role, texts in (("train", args.train), ("test", args.test)):
        for t in texts:
            evals += evaluations_of(parse_item(t, args.warmup, args.prime), role)
    config = dict(hw_gyro=args.hw_gyro, hwname=args.hwname, sets=base, lib=None,
                  skip_early_gyro=not args.keep_early_gyro, objective=args.objective,
                  margin=args.margin, max_tilt=args.max_tilt_rms, tilt_slack=args.tilt_slack)
    return config, dims, evals


def run_worker(args, study, objective, start, retries: int = 3):
    first = counted(study)
    for attempt in range(retries + 1):
        left = None if args.time_limit is None else args.time_limit - (time.monotonic() - start)
        if left is not None and left <= 0:
            return
        try:
            study.optimize(objective, n_trials=max(0, args.budget - counted(study)) + args.workers,
                           timeout=left, callbacks=[_progress(start, args.budget, first)],
                           gc_after_trial=False)
            return
        except AssertionError as e:
            # The optimisation loop's own bookkeeping asserts ("Should not
            # reach.") when a trial it has just told does not read back as
            # finished; seen once with two workers on PostgreSQL on a loaded
            # machine. The study is intact: go on with the next trial.
            if "Should not reach" not in str(e) or attempt == retries:
                raise
            print(f"qvn_tune: worker {os.getpid()}: the optimisation loop lost track of a "
                  "trial; going on", file=sys.stderr)


def main(argv=None) -> int:
    try:
        return _main(argv)
    except UsageError as e:
        print(f"qvn_tune: {e}", file=sys.stderr)
        return EXIT_USAGE
    except RuntimeFailure as e:
        print(f"qvn_tune: {e}", file=sys.stderr)
        return EXIT_RUNTIME
    except KeyboardInterrupt:
        print("qvn_tune: interrupted; run the same command again to resume the study",
              file=sys.stderr)
        return 130


def _main(argv) -> int:
    import optuna
    argv = list(sys.argv[1:] if argv is None else argv)
    args = parser().parse_args(argv)
    optuna.logging.set_verbosity(optuna.logging.ERROR)
    warnings.filterwarnings("ignore", category=optuna.exceptions.ExperimentalWarning)
    config, dims, evals = prepare(args)
    search = _search_id(args, dims, evals)
    name = args.study or f"qvn_tune-{search}"
    storage = _storage(args.storage)
    sampler = make_sampler(args.sampler, args.seed, max(1, args.workers))
    pruner = (optuna.pruners.NopPruner() if args.no_pruning
              else optuna.pruners.MedianPruner(n_startup_trials=5, n_warmup_steps=0))
    study = optuna.create_study(study_name=name, storage=storage, sampler=sampler,
                                pruner=pruner, direction="minimize", load_if_exists=True)
    if study.user_attrs.get("search", search) != search:
        raise UsageError(f"study '{name}' holds another search (other ranges, items or seed); "
                         "choose another --study")
    start = time.monotonic()
    if not args.worker:
        if not study.trials:
            study.set_user_attr("search", search)
            study.set_user_attr("command", "qvn_tune " + " ".join(argv))
            study.enqueue_trial({}, user_attrs={"default": True})  # every dimension at its default
        fail_lost_trials(study, storage)  # those of an interrupted run
        before = counted(study)
        if before:
            print(f"qvn_tune: study '{name}': {before} of {args.budget} trials done, resuming",
                  file=sys.stderr)
    helpers = []
    if args.workers > 1:
        cmd = [sys.executable, "-m", "qvnlib.tune", *argv, "--worker", "--workers", "1",
               "--study", name]
        if "--storage" not in argv:
            cmd += ["--storage", storage.url]
        env = dict(os.environ)  # the workers import this very package
        here = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
        env["PYTHONPATH"] = os.pathsep.join(p for p in (here, env.get("PYTHONPATH")) if p)
        helpers = [subprocess.Popen(_worker_args(cmd), env=env) for _ in range(args.workers - 1)]
    objective = Objective(evals, dims, config, args.budget)
    if args.worker:
        study.set_user_attr(f"ready-{os.getpid()}", True)
    _wait_ready(study, helpers)  # so that a slow start does not leave a helper idle
    try:
        run_worker(args, study, objective, start)
    finally:
        for h in helpers:
            h.wait()
    if args.worker:
        return 0
    return report(args, study, objective, evals, dims, time.monotonic() - start, argv)


def _wait_ready(study, helpers, limit_s: float = 120.0) -> None:
    end = time.monotonic() + limit_s
    while time.monotonic() < end:
        attrs = study.user_attrs if helpers else {}
        if all(h.poll() is not None or attrs.get(f"ready-{h.pid}") for h in helpers):
            return
        time.sleep(0.2)


def _worker_args(cmd):
    out, skip = [], False
    for k, a in enumerate(cmd):
        if skip:
            skip = False
            continue
        if a == "--workers" and k + 1 < len(cmd) and cmd[k + 1] != "1":
            skip = True
            continue
        out.append(a)
    return out


# ------------------------------------------------------------------- report

def _best(study):
    import optuna
    trials = [t for t in study.get_trials(deepcopy=False)
              if t.state == optuna.trial.TrialState.COMPLETE and "refused" not in t.user_attrs]
    return sorted(trials, key=lambda t: (t.value, t.number))


def item_table(evals, default_scores, found_scores, output: str) -> list:
    lines = [f"{'item':<58} {'life':<4} {'set':<7} {'hRMS':>6} {'h95':>6} {'tRMS':>6} "
             f"{'t95':>6} {'steps':>6}"]
    for ev, d, f in zip(evals, default_scores, found_scores):
        for setname, s in (("default", d), ("found", f)):
            r = s.of(output)
            cells = (f"{r['h']:6.2f} {r['h95']:6.2f} {r['t']:6.2f} {r['t95']:6.2f}"
                     if scored(r) else f"{'not scored':>27}")
            lines.append(f"{ev.role + ' ' + ev.label:<58.58} {'warm' if ev.warm else 'cold':<4} "
                         f"{setname:<7} {cells} {r['steps']:6d}")
    return lines


def replay_command(args, ev: Evaluation) -> str | None:
    """The qvn_replay command of a cold replay with the found set."""
    it = ev.item
    if ev.warm or it.gt == "still":
        return None
    c = ["qvn_replay", "--hw-gyro", str(args.hw_gyro)]
    if not args.keep_early_gyro:
        c.append("--skip-early-gyro")
    for flag, v in (("--from", it.from_s or None), ("--to", it.to_s),
                    ("--score-from", it.score_from_s), ("--score-to", it.score_to_s),
                    ("--gt-shift-ms", it.gt_shift_ms or None), ("--gt-max-sigma", it.gt_max_sigma)):
        if v is not None:
            c += [flag, f"{v:g}"]
    c += ["--warmup", f"{it.warmup_s:g}", "--set-file", args.out_set]
    if it.gt:
        c += ["--gt", it.gt]
    return " ".join(c + [it.path])


def report(args, study, objective, evals, dims, elapsed, argv) -> int:
    best = _best(study)
    if not best:
        raise RuntimeFailure("no trial met the limits (not even the default set); "
                             "see the study's trials")
    top = best[0]
    sets = objective.sets_of(top.params)
    out = args.objective
    tilt = ("tilt RMS <= each item's default + %g deg" % args.tilt_slack
            if args.max_tilt_rms is None else f"tilt RMS <= {args.max_tilt_rms:g} deg")
    n_train = len(objective.train)
    statement = (f"objective: mean heading RMS of {out} over {n_train} training replay(s) "
                 f"(items cold, and warm after the prime); refused: any training replay worse "
                 f"than the default by more than {args.margin:g} deg, {tilt}, or any output "
                 f"with fewer scored steps than the default")
    search = (f"search: {args.sampler} sampler, seed {args.seed}, {counted(study)} of "
              f"{args.budget} trials in study '{study.study_name}', {elapsed:.0f} s here; "
              f"training {objective.default_value:.2f} -> {top.value:.2f} deg (trial {top.number})")
    config = objective.config
    default_scores = [evaluate(e, config, config["sets"]) for e in evals]
    found_scores = [evaluate(e, config, sets) for e in evals]
    lines = ["qvn_tune " + " ".join(argv), statement, search, ""]
    lines += [f"{out}, degrees (heading after removing one constant offset per replay):"]
    lines += ["  " + line for line in item_table(evals, default_scores, found_scores, out)]
    worse = [f"{e.role} {e.label} {'warm' if e.warm else 'cold'}"
             for e, d, f in zip(evals, default_scores, found_scores)
             if scored(d.of(out)) and (not scored(f.of(out)) or f.of(out)["h"] > d.of(out)["h"])]
    lines.append("worse than the default: " + ("; ".join(worse) if worse else "none"))
    lines += ["", f"best trials (of {len(best)} accepted; '-' = the default value):"]
    shown = best[:args.top]
    lines.append(f"  {'trial':<40}" + "".join(f"{t.number:>11d}" for t in shown))
    lines.append(f"  {'objective (deg)':<40}" + "".join(f"{t.value:>11.2f}" for t in shown))
    for d in dims:
        lines.append(f"  {d.target:<40}" + "".join(
            f"{_short(t.params[d.target]) if d.target in t.params else '-':>11}"
            for t in shown))
    print("\n".join(lines))
    note = [lines[0], statement, search]
    c_note = note + ["", "Call qvn_apply_tuned_set(handle), handle = the dlopen handle of "
                     "libqvnlib, right", "after every QVN_CaliInitLib: the device profile "
                     "rewrites several tunables during", "initialisation."]
    try:
        for path, text in ((args.out_set, _core.set_file_text(sets, note)),
                           (args.out_c, _core.c_snippet_text(sets, c_note))):
            tmp = f"{path}.tmp{os.getpid()}"
            with open(tmp, "w") as f:
                f.write(text)
            os.replace(tmp, path)
    except OSError as e:
        raise RuntimeFailure(f"cannot write {e.filename}: {e.strerror}") from None
    print(f"\nfound set ({args.out_set}, also as C in {args.out_c}):")
    for s in sets:
        print("  " + s)
    print("cold replays with the found set (without --set-file: the default set):")
    for ev in evals:
        command = replay_command(args, ev)
        if command:
            print("  " + command)
    return 0


if __name__ == "__main__":
    sys.exit(main())
