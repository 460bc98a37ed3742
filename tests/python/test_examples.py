"""The examples run as a user runs them, on small inputs."""

import os
import subprocess
import sys

import qvnlib
from conftest import SOURCE_DIR


def run_example(name, *args, cwd):
    # The package these tests import, wherever the examples run from.
    env = dict(os.environ, PYTHONPATH=os.path.dirname(os.path.dirname(qvnlib.__file__)))
    done = subprocess.run([sys.executable, os.path.join(SOURCE_DIR, "examples", name),
                           *map(str, args)], capture_output=True, text=True, cwd=cwd,
                          timeout=120, env=env)
    assert done.returncode == 0, done.stderr
    return done.stdout


def test_replay_and_plot_writes_the_figure(tmp_path):
    out = run_example("replay_and_plot.py", "--out", "cal.png", cwd=tmp_path)
    assert "final offset" in out
    assert (tmp_path / "cal.png").read_bytes()[:8] == b"\x89PNG\r\n\x1a\n"


def test_score_tuned_set_scores_both_sets(sim, tmp_path):
    out = run_example("score_tuned_set.py", sim / "events.csv", "--gt-shift-ms", "0",
                      "--score-from", "14", cwd=tmp_path)
    rows = {line.split()[0]: line.split()[1:] for line in out.splitlines()[2:]}
    assert set(rows) == {"default", "tuned"}
    # Same steps scored, different errors: the tuned set reached the library.
    assert rows["default"][0] == rows["tuned"][0] and int(rows["tuned"][0]) > 100
    assert rows["default"][1:] != rows["tuned"][1:]
