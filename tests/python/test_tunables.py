"""Every exported variable by name, with its own type and shape: reads, checked
writes, live views, and the load-time state that every replay starts from."""

import numpy as np
import pytest

import qvnlib
from conftest import WALK


@pytest.fixture(scope="module")
def lib():
    lib = qvnlib.library()
    yield lib
    lib.reset()


def one_of_each_type_and_rank(t):
    seen = {}
    for name in t:
        info = t.info(name)
        seen.setdefault((info.dtype, len(info.shape)), name)
    return sorted(seen.values())


def test_listing_matches_the_values(lib):
    t = lib.tunables
    frame = t.frame()
    assert len(frame) == len(t) > 200
    for name in one_of_each_type_and_rank(t):
        value = t[name]
        assert np.asarray(value).dtype == t.info(name).dtype
        assert np.shape(value) == t.info(name).shape
        np.testing.assert_array_equal(frame.loc[name, "value"], value)


def test_round_trip_of_every_type_and_shape(lib):
    t = lib.tunables
    names = one_of_each_type_and_rank(t)
    assert {str(t.info(n).dtype) for n in names} >= {"float32", "int16", "uint8", "uint64"}
    for name in names:
        info = t.info(name)
        if info.dtype.kind == "f":
            # A value that float32 rounds: stored as the nearest float32.
            extreme, value = np.float32(3.4e38), 0.1
        else:
            extreme = np.iinfo(info.dtype).max
            value = np.iinfo(info.dtype).min
        view = t.view(name)
        copy = t[name]
        copy_before = np.array(copy)
        wanted = np.full(info.shape, value).astype(info.dtype)
        t[name] = np.full(info.shape, value) if info.shape else value
        np.testing.assert_array_equal(t[name], wanted)
        np.testing.assert_array_equal(view, wanted)  # the view is live
        np.testing.assert_array_equal(copy, copy_before)  # t[name] is a copy
        if info.shape:
            last = f"{name}[{info.shape[0] - 1}]" + (f"[{info.shape[1] - 1}]"
                                                       if len(info.shape) == 2 else "")
            t[last] = extreme
            assert view.reshape(-1)[-1] == extreme and view.reshape(-1)[0] == wanted.flat[0]
        else:
            t[name] = extreme
            assert t[name] == extreme
    lib.reset()


def test_view_writes_reach_the_library_reset_restores_and_replay_sets_stay(lib):
    t = lib.tunables
    name = "g_quat_weight_acc_normal"
    load_time = t[name]
    view = t.view(name)
    view[()] = 0.125
    assert t[name] == np.float32(0.125)
    lib.reset()
    assert t[name] == load_time and view[()] == load_time
    # A replay leaves the library in its final state, its own set included.
    run = lib.replay(WALK, to_s=5, sets={name: 0.0625})
    assert t[name] == np.float32(0.0625) and len(run.steps) > 0


@pytest.mark.parametrize("name,value,error,message", [
    ("no_such_tunable", 1, KeyError, "unknown tunable 'no_such_tunable'"),
    ("no_such_tunable[0]", 1, KeyError, "unknown tunable"),
    ("acc_axis", [1, 2], ValueError, "shape"),
    ("acc_axis[7]", 1, ValueError, "bad index"),
    ("g_quat_weight_acc_normal[0]", 1, ValueError, "bad index"),
    ("acc_avg_cnt", 1.5, TypeError, "floating-point"),
    ("acc_avg_cnt", "3", TypeError, "numbers"),
    ("acc_avg_cnt", 1 + 2j, TypeError, "numbers"),
    ("acc_avg_cnt", 40000, ValueError, "out of range"),
    ("g_dri_filter_set", -1, ValueError, "out of range"),
    ("timestamp_cali", 2 ** 64, ValueError, "out of range"),
    ("g_quat_weight_acc_normal", 1e39, ValueError, "does not fit"),
    ("g_quat_weight_acc_normal", [1.0], ValueError, "shape"),
    ("g_quat_weight_acc_normal[0]", [1.0], ValueError, "expected one value"),
])
def test_bad_writes_raise_and_write_nothing(lib, name, value, error, message):
    t = lib.tunables
    before = {n: t[n] for n in ("acc_axis", "acc_avg_cnt", "g_dri_filter_set",
                                "g_quat_weight_acc_normal", "timestamp_cali")}
    with pytest.raises(error, match=message):
        t[name] = value
    with pytest.raises(error, match=message):
        lib.replay(WALK, to_s=1, sets={name: value})
    for n, v in before.items():
        np.testing.assert_array_equal(t[n], v)


def test_update_checks_everything_before_writing(lib):
    t = lib.tunables
    before = t["acc_avg_cnt"]
    with pytest.raises(KeyError):
        t.update({"acc_avg_cnt": 7, "missing_name": 1})
    assert t["acc_avg_cnt"] == before
