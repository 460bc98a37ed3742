"""Sessions and the tuner: a primed replay against one concatenated file run by
qvn_replay; qvn_tune's refusals, input errors, resumption of an interrupted
SQLite study, and two workers sharing one study on a local PostgreSQL server."""

import glob
import os
import shutil
import signal
import socket
import subprocess
import tempfile
import time

import pytest

import qvnlib
from conftest import built_tool
from qvnlib import sessions, tune

optuna = pytest.importorskip("optuna")  # installed by scripts/deps.sh; only bare machines skip


def tune_tool():
    return built_tool("QVN_TUNE", "qvn_tune")


@pytest.fixture(scope="module")
def recs(tmp_path_factory):
    """A calibration sweep and a short swinging walk of one simulated phone."""
    root = tmp_path_factory.mktemp("tune")
    for name, motion, seed in (("prime", "still:1,figure8:8", 21),
                               ("walk", "still:1,swing:14:4", 22)):
        qvnlib.simulate(root / name, motion=motion, seed=seed, offset=(40, -25, 60))
    return root


@pytest.mark.parametrize("hw_gyro", [0, 1])
def test_session_replay_gives_the_bits_of_one_concatenated_file(recs, run_tool, tmp_path,
                                                                hw_gyro):
    paths = [str(recs / "prime" / "events.csv"), str(recs / "walk" / "events.csv")]
    joined = tmp_path / "joined.csv"
    shifts = sessions.write_concatenated(paths, joined)
    walk_truth = tmp_path / "gt.csv"
    gt = qvnlib.read_truth(recs / "walk" / "gt.csv")
    gt["t_ns"] += shifts[1]
    gt.to_csv(walk_truth, index=False, float_format="%.17g")
    args = ["--skip-early-gyro"] if hw_gyro else []
    done = run_tool("--hw-gyro", hw_gyro, *args, "--gt", walk_truth, "--out", tmp_path / "tool.csv",
                    joined)
    assert done.returncode == 0, done.stderr

    session = sessions.concatenate(paths)
    assert session.shifts_ns == shifts
    run = qvnlib.replay(session.events, hw_gyro=hw_gyro, skip_early_gyro=bool(hw_gyro),
                        truth=session.truth_of(1, recs / "walk" / "gt.csv"))
    run.write_csv(tmp_path / "ours.csv")
    assert (tmp_path / "ours.csv").read_bytes() == (tmp_path / "tool.csv").read_bytes()
    # The same through replay()'s list form, and the scores the tool printed.
    again = qvnlib.replay(paths, hw_gyro=hw_gyro, skip_early_gyro=bool(hw_gyro))
    assert again.steps.equals(run.steps)
    hrms = run.accuracy.loc["orientation", "heading_rms"]
    assert f"{hrms:.2f}" in done.stdout
    # The warm walk really differs from the cold one: the calibration is carried over.
    cold = qvnlib.replay(paths[1], hw_gyro=hw_gyro, skip_early_gyro=bool(hw_gyro))
    walk_start = len(run.steps) - len(cold.steps)
    assert cold.steps["offset_x"].iloc[0] != run.steps["offset_x"].iloc[walk_start]


def _scores(h=10.0, t=2.0, steps=100, not_finite=0, constant=False, **per_output):
    rows = {o: dict(h=h, h95=2 * h, t=t, t95=2 * t, steps=steps, not_finite=not_finite,
                    constant=constant) for o in tune.OUTPUTS}
    for o, changes in per_output.items():
        rows[o].update(changes)
    return tune.Scores(rows)


@pytest.mark.parametrize("candidate,expected", [
    (_scores(h=10.4), None),                                    # within the margin
    (_scores(h=10.6), "heading RMS 10.60 > default 10.00"),
    (_scores(t=3.1), "tilt RMS 3.10 > 3.00"),
    (_scores(rv=dict(steps=99)), "rv lost steps"),              # another output went NaN
    (_scores(qfusion=dict(constant=True)), "qfusion lost steps"),  # frozen
    (_scores(h=float("nan")), "orientation not scored"),
])
def test_refusal(candidate, expected):
    why = tune.refusal(candidate, _scores(), "orientation", margin=0.5, tilt_limit=3.0)
    assert (why is None) if expected is None else (why is not None and expected in why)
    excess = tune.violation(candidate, _scores(), "orientation", margin=0.5, tilt_limit=3.0)
    assert (excess == 0) == (why is None) and excess >= 0


def _run(args, **kw):
    return subprocess.run([tune_tool(), *map(str, args)], capture_output=True, text=True,
                          timeout=180, **kw)


def _search_args(recs, out, budget, seed=3):
    walk = recs / "walk" / "events.csv"
    return ["--hw-gyro", 1, "--range", "g_quat_weight_mag_normal=0.0001:0.02:log",
            "--range", "g_lpf_acc_ratio=0.05:1", "--range", "g_optimal_compensation_mode=0|4",
            "--sampler", "random", "--seed", seed, "--budget", budget, "--warmup", 2,
            "--prime", recs / "prime" / "events.csv", "--train", f"{walk},to=10",
            "--test", f"{walk},score-from=10", "--out-set", out / "set.txt",
            "--out-c", out / "set.c"]


@pytest.mark.parametrize("args,message", [
    (["--train", "{walk}", "--preset", "fusion"], "preset fusion acts only with --hw-gyro 1"),
    (["--train", "{walk}", "--preset", "speed"], "unknown preset 'speed'"),
    (["--train", "{walk},upto=3", "--preset", "nogyro"], "bad item 'upto=3'"),
    (["--train", "{walk},to=x", "--preset", "nogyro"], "bad item 'to=x'"),
    (["--train", "{walk},from=3,prime={walk}", "--preset", "nogyro"], "from= cannot follow"),
    (["--train", "{bad}", "--preset", "nogyro"], "bad.csv:3"),
    (["--train", "{walk}", "--preset", "nogyro", "--budget", "-1"], "bad value '-1'"),
    (["--train", "{walk},gt-max-sigma=3", "--preset", "nogyro"], "needs a truth with a sigma_deg"),
    (["--train", "{walk},gt-max-sigma=-1", "--preset", "nogyro"], "bad item 'gt-max-sigma=-1'"),
])
def test_bad_input_is_named_and_exits_2(recs, tmp_path, args, message, capsys, monkeypatch):
    bad = tmp_path / "bad.csv"
    bad.write_text("t_ns,sensor,x,y,z\n1000,acc,0,0,9.8\n2000,acc,0,zero,9.8\n")
    walk = recs / "walk" / "events.csv"
    monkeypatch.chdir(tmp_path)
    assert tune.main([a.format(walk=walk, bad=bad) for a in args]) == 2
    err = capsys.readouterr().err
    assert err.startswith("qvn_tune: ") and message in err, err


def test_untrusted_reference_samples_stay_unscored_cold_and_warm(recs, tmp_path):
    # The walk's truth with a sigma column: every other second untrusted.
    walk = recs / "walk"
    truth = qvnlib.read_truth(walk / "gt.csv")
    t0 = int(truth["t_ns"].iloc[0])
    truth["sigma_deg"] = [9.0 if ((t - t0) // 1_000_000_000) % 2 else 0.5 for t in truth["t_ns"]]
    ref = tmp_path / "ref.csv"
    truth.to_csv(ref, index=False)
    config = dict(hw_gyro=0, skip_early_gyro=True)
    steps = {}
    for limit in ("", ",gt-max-sigma=3"):
        item = tune.parse_item(f"{walk / 'events.csv'},gt={ref}{limit}",
                               prime=str(recs / "prime" / "events.csv"))
        cold, warm = tune.evaluations_of(item, "train")
        steps[limit] = [tune.evaluate(e, config, []).of("orientation")["steps"]
                        for e in (cold, warm)]
    for k in range(2):  # about half the steps are left out, primed or not
        assert 0.35 < steps[",gt-max-sigma=3"][k] / steps[""][k] < 0.65, steps


def _study(url):
    names = [x.study_name for x in optuna.study.get_all_study_summaries(url)]
    assert len(names) == 1
    return optuna.load_study(study_name=names[0], storage=url)


def _finished(study):
    return {t.number: (t.params, t.value) for t in study.get_trials(deepcopy=False)
            if t.state == optuna.trial.TrialState.COMPLETE}


def test_interrupted_sqlite_study_resumes_without_repeating(recs, tmp_path, run_tool):
    url = f"sqlite:///{tmp_path / 'study.db'}"
    args = _search_args(recs, tmp_path, budget=24) + ["--storage", url]
    first = subprocess.Popen([tune_tool(), *map(str, args)], stdout=subprocess.DEVNULL,
                             stderr=subprocess.DEVNULL)
    deadline = time.monotonic() + 120
    while time.monotonic() < deadline and first.poll() is None:
        time.sleep(0.5)
        try:
            if len(_finished(_study(url))) >= 5:
                break
        except (AssertionError, KeyError):  # the study is not created yet
            continue
    first.send_signal(signal.SIGKILL)
    first.wait()
    before, counted = _finished(_study(url)), tune.counted(_study(url))
    assert 5 <= len(before) <= counted < 24
    time.sleep(3 * tune.HEARTBEAT_S + 1)  # the killed run's trial is declared lost

    done = _run(args, cwd=tmp_path)
    assert done.returncode == 0, done.stderr
    assert f"{counted} of 24 trials done, resuming" in done.stderr
    study = _study(url)
    assert tune.counted(study) == 24
    after = _finished(study)
    assert all(after[n] == v for n, v in before.items())  # finished trials kept, not redone
    # The report: every item cold and warm, and a set that qvn_replay reproduces.
    for life in ("cold", "warm"):
        rows = [line for line in done.stdout.splitlines()
                if f" {life} default " in line or f" {life} found " in line]
        assert len(rows) == 4, done.stdout
    cold_found = next(line for line in done.stdout.splitlines()
                      if line.lstrip().startswith("train") and " cold found" in line)
    replayed = run_tool("--hw-gyro", 1, "--skip-early-gyro", "--to", 10, "--warmup", 2, "--no-lag",
                        "--set-file", tmp_path / "set.txt", recs / "walk" / "events.csv")
    assert replayed.returncode == 0, replayed.stderr
    assert cold_found.split()[-5] in replayed.stdout
    compiled = subprocess.run(["cc", "-fsyntax-only", "-Wall", "-Wno-unused-function", "-Werror",
                               tmp_path / "set.c"],
                              capture_output=True, text=True, timeout=60)
    assert compiled.returncode == 0, compiled.stderr


@pytest.fixture
def postgres():
    """A throw-away PostgreSQL server on the loopback address, as its own user."""
    bins = sorted(glob.glob("/usr/lib/postgresql/*/bin/pg_ctl"))
    assert bins, "PostgreSQL is not installed (scripts/deps.sh installs postgresql)"
    bindir = os.path.dirname(bins[-1])
    as_user = ["runuser", "-u", "postgres", "--"] if os.geteuid() == 0 else []
    folder = tempfile.mkdtemp(prefix="qvn_pg.")
    os.chmod(folder, 0o755)
    data = os.path.join(folder, "data")
    if as_user:
        shutil.chown(folder, "postgres")
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        port = s.getsockname()[1]

    def pg(*args):
        done = subprocess.run(as_user + [os.path.join(bindir, args[0]), *args[1:]],
                              capture_output=True, text=True, timeout=60)
        assert done.returncode == 0, done.stdout + done.stderr

    pg("initdb", "-D", data, "-U", "postgres", "--auth=trust", "-E", "UTF8")
    pg("pg_ctl", "-D", data, "-w", "-l", os.path.join(folder, "log"), "-o",
       f"-p {port} -k {folder} -c listen_addresses=127.0.0.1", "start")
    try:
        yield f"postgresql+psycopg2://postgres@127.0.0.1:{port}/postgres"
    finally:
        pg("pg_ctl", "-D", data, "-m", "immediate", "stop")
        shutil.rmtree(folder, ignore_errors=True)


def test_two_workers_on_postgresql_find_the_single_run_best(recs, tmp_path, postgres):
    one = tmp_path / "one"
    two = tmp_path / "two"
    one.mkdir(), two.mkdir()
    single = _run(_search_args(recs, one, budget=30) + ["--storage", f"sqlite:///{one / 's.db'}",
                                                         "--no-pruning"],
                  cwd=one)
    assert single.returncode == 0, single.stderr
    shared = _run(_search_args(recs, two, budget=30) + ["--storage", postgres, "--workers", 2,
                                                          "--no-pruning"],
                  cwd=two)
    assert shared.returncode == 0, shared.stderr
    a, b = _study(f"sqlite:///{one / 's.db'}"), _study(postgres)
    assert tune.counted(b) == 30
    workers = {t.user_attrs.get("worker") for t in b.get_trials(deepcopy=False)}
    assert len(workers - {None}) == 2, workers
    # The random sampler draws trial n's point from the seed and n only, so
    # without pruning (whose decisions depend on the order trials finish in)
    # the two studies hold the same trials and the same best one.
    assert _finished(a) == _finished(b)
    assert tune._best(a)[0].number == tune._best(b)[0].number
    sets = [[line for line in (d / "set.txt").read_text().splitlines() if line[:1] != "#"]
            for d in (one, two)]
    assert sets[0] == sets[1] and sets[0]


def test_a_worker_goes_on_when_the_loop_loses_track_of_a_trial():
    class Study:
        def __init__(self, message):
            self.message, self.calls = message, 0

        def get_trials(self, deepcopy=False):
            return []

        def optimize(self, objective, **kw):
            self.calls += 1
            if self.calls == 1:
                raise AssertionError(self.message)

    args = type("Args", (), dict(time_limit=None, budget=5, workers=1))()
    study = Study("Should not reach.")
    tune.run_worker(args, study, None, time.monotonic())
    assert study.calls == 2
    with pytest.raises(AssertionError, match="another"):  # any other assertion stands
        tune.run_worker(args, Study("another"), None, time.monotonic())


def test_only_trials_of_gone_workers_are_failed(tmp_path):
    storage = tune._storage(f"sqlite:///{tmp_path / 'study.db'}")
    study = optuna.create_study(storage=storage)
    no_heartbeat = study.ask()  # as left by a worker killed right after creating it
    beating = study.ask()
    storage.record_heartbeat(beating._trial_id)
    finished = study.ask()
    study.tell(finished, 1.0)
    S = optuna.trial.TrialState
    for grace_s, left in ((None, S.RUNNING), (0, S.FAIL)):  # too young to be called lost, then not
        tune.fail_lost_trials(study, storage, *([] if grace_s is None else [grace_s]))
        states = {t.number: t.state for t in study.get_trials(deepcopy=False)}
        assert states == {no_heartbeat.number: left, beating.number: S.RUNNING,
                          finished.number: S.COMPLETE}
