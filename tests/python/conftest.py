"""Fixtures of the package tests: the tools to compare with, and recordings.

Run by CTest (python_package_tests), which sets PYTHONPATH to the build
tree's python/ folder and QVN_REPLAY to the replay tool of the same build."""

import os
import subprocess

import pytest

import qvnlib

SOURCE_DIR = os.environ.get("QVN_SOURCE_DIR",
                            os.path.dirname(os.path.dirname(os.path.dirname(__file__))))
WALK = os.path.join(SOURCE_DIR, "data", "phone_walk_flat", "events.csv")


def built_tool(variable, name):
    """The tool that CTest names in $variable, else the one beside the
    simulator of the build that the package comes from."""
    path = os.environ.get(variable) or os.path.join(
        os.path.dirname(qvnlib._core.BUILD_TREE_SIMULATE), name)
    assert os.access(path, os.X_OK), f"no {name} at {path}"
    return path


@pytest.fixture(scope="session")
def replay_tool():
    return built_tool("QVN_REPLAY", "qvn_replay")


@pytest.fixture(scope="session")
def run_tool(replay_tool):
    """Runs qvn_replay with args; returns the finished process."""
    def run(*args):
        return subprocess.run([replay_tool, *map(str, args)], capture_output=True, text=True,
                              timeout=120)
    return run


@pytest.fixture(scope="session")
def sim(tmp_path_factory):
    """A short simulated recording with gt.csv and truth.txt beside it: a
    calibration sweep, then a swinging walk with turns."""
    folder = tmp_path_factory.mktemp("sim")
    qvnlib.simulate(folder, motion="still:2,figure8:12,swing:16:4", seed=5,
                    offset=(40, -25, 60), charging=(20, 3, 300000))
    return folder
