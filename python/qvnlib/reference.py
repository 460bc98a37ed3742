"""A reference attitude computed from a recording itself (``qvn_reference``).

    import qvnlib.reference
    ref = qvnlib.reference.compute("walk/events.csv", cal="magcal/events.csv")
    ref.attitude  # t_ns, qw, qx, qy, qz (phone to east-north-up), sigma_deg
    print(ref.report)

Runs the command-line tool and reads what it wrote, so the numbers are the
tool's own. ``ref.write(path)`` (or ``out=`` here) gives a file that
``qvnlib.replay`` and ``qvn_replay --gt`` take as truth.
"""

from __future__ import annotations

import os
import shutil
import subprocess
import tempfile
from dataclasses import dataclass

import pandas as pd

from . import _core

COLUMNS = ("t_ns", "qw", "qx", "qy", "qz", "sigma_deg")


def tool_path() -> str:
    """$QVN_REFERENCE_TOOL, else the tool beside qvn_simulate (installed) or in
    the build tree's reference/ folder."""
    if os.environ.get("QVN_REFERENCE_TOOL"):
        return os.environ["QVN_REFERENCE_TOOL"]
    here = os.path.dirname(os.path.abspath(__file__))
    installed = os.path.join(here, os.path.dirname(_core.SIMULATE_FROM_PACKAGE), "qvn_reference")
    build_tree = os.path.join(os.path.dirname(os.path.dirname(_core.BUILD_TREE_SIMULATE)),
                              "reference", "qvn_reference")
    for candidate in (installed, build_tree):
        if os.access(candidate, os.X_OK):
            return os.path.normpath(candidate)
    return "qvn_reference"


@dataclass
class Reference:
    attitude: pd.DataFrame  # the COLUMNS
    report: str

    def write(self, path) -> None:
        self.attitude.to_csv(path, index=False, float_format="%.9f")


def compute(events, cal=None, out=None, rate_hz: float = 100, refit_offset: bool = True,
            **smoother) -> Reference:
    """Reference attitude of the events file (``cal``: a calibration recording
    of the same phone). Smoother settings as keywords (``accel_noise=0.1``);
    a bad input raises ValueError with the tool's message."""
    folder = tempfile.mkdtemp(prefix="qvn_ref.")
    try:
        target = os.fspath(out) if out is not None else os.path.join(folder, "reference.csv")
        args = [tool_path(), "--out", target, "--rate", repr(float(rate_hz))]
        if cal is not None:
            args += ["--cal", os.fspath(cal)]
        if not refit_offset:
            args.append("--no-refit-offset")
        for key, value in smoother.items():
            args += ["--smoother", f"{key}={float(value)!r}"]
        done = subprocess.run(args + [os.fspath(events)], capture_output=True, text=True,
                              timeout=3600)
        if done.returncode != 0:
            raise ValueError(done.stderr.strip() or f"qvn_reference failed ({done.returncode})")
        return Reference(pd.read_csv(target), done.stdout)
    finally:
        shutil.rmtree(folder, ignore_errors=True)
