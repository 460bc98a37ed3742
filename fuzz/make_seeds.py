#!/usr/bin/env python3
"""Writes the committed seed corpora of the fuzz harnesses.

    python3 fuzz/make_seeds.py            # rewrites fuzz/corpus/<harness>/

The seeds are small deterministic streams in the harnesses' input encoding
(fuzz/fuzz_input.h, fuzz/sample_clock.h, fuzz/orbit.h, the opcodes of each
harness): a still phone, a phone turning through every attitude at an odd
hard-iron offset (with and without a hardware gyroscope), special values and
broken clocks, tunable writes before and after initialisation, the NFC variant
with logging on, and batches for each fit. Tunable indices are read from
fuzz/tunables.cpp so they stay in step with the table.
"""
import math
import os
import re
import struct

HERE = os.path.dirname(os.path.abspath(__file__))

# ---- encoding shared with fuzz_input.h
SPECIAL = {'nan': 0, '-nan': 1, 'snan': 2, 'inf': 3, '-inf': 4, 'denorm': 5, '-denorm': 6,
           'maxdenorm': 7, 'fltmin': 8, 'fltmax': 9, '-fltmax': 10, '-0': 12, '1e20': 15,
           '2^31': 19, '-2^31': 20, '65504': 23, '2^63': 31}


def f32(v):
    """A float: fixed point /256 when it fits, else raw float32 bits."""
    if isinstance(v, str):
        return bytes([0xE0 + SPECIAL[v]])
    for tag, div in enumerate((256.0, 64.0, 8.0, 1.0)):
        q = round(v * div)
        if -32768 <= q <= 32767 and abs(q / div - v) <= 1.0 / 512:
            return bytes([tag]) + struct.pack('<h', q)
    return bytes([0xC0]) + struct.pack('<f', v)


def u8(v):
    return struct.pack('<B', v & 0xFF)


def i16(v):
    return struct.pack('<h', v)


def i32(v):
    return struct.pack('<i', v)


# ---- host-calls harness: opcodes of host_calls_fuzzer.cpp
(INIT, ACCEL, GYRO, MAG, DOCALI, MAGPAIR, GETTER, GETOFFSET, SETOFFSET, ENABLE, TUNABLE, LOG,
 ORBIT, FULLSTEP, ANY_ELEMENT) = range(15)
STEP_20MS = 80  # time code: 80 quarter milliseconds


def tunable_index():
    src = open(os.path.join(HERE, 'tunables.cpp')).read()
    body = src[src.index('Slot g_slots[] = {'):src.index('// clang-format on')]
    names = re.findall(r'(?:S16|U16|F32)\(([^)]+)\)|\{"([^"]+)"', body)
    return {a or b: i for i, (a, b) in enumerate(names)}


TUN = tunable_index()


def tunable(name, value):
    """A write of a tunable; value bytes already encoded by the caller."""
    return u8(TUNABLE) + u8(TUN[name]) + value


def sample(x, y, z, code=STEP_20MS, accuracy=3, absolute=None):
    t = u8(code) if absolute is None else u8(252) + struct.pack('<q', absolute)
    return t + f32(x) + f32(y) + f32(z) + u8(accuracy)


def full_step(acc, gyr, mag, code=STEP_20MS):
    # The three samples share one instant: only the first moves the clock.
    return (u8(FULLSTEP) + sample(*acc, code=code) + sample(*gyr, code=0) +
            sample(*mag, code=0))


def orbit(samples=256, step_ms=20, radius=45.0, centre=(12, -7, 30), yaw=2, pitch=3, noise=32):
    return (u8(ORBIT) + u8(samples - 1) + u8(step_ms - 1) + u8(int((radius - 20) * 4)) +
            bytes(c & 0xFF for c in centre) + u8((yaw - 1) | ((pitch - 1) << 3)) + u8(noise))


def init(hw_gyro, variant=0, layout=1, deviceid=8):
    return u8(INIT) + i32(layout) + i32(deviceid) + u8(hw_gyro) + u8(variant)


ALL_GETTERS = u8(GETTER) + u8(7)


def host_seeds():
    # Writes to elements of the generated list of every exported variable
    # (indices spread over it; integer elements take raw bytes).
    anywhere = b''.join(u8(ANY_ELEMENT) + struct.pack('<H', i) + v for i, v in (
        (3, f32('nan')), (77, b'\xff\xff\xff\x7f\xff\xff\xff\x7f'), (500, f32('inf')),
        (1500, f32(-1e20)), (2600, b'\x00\x80\x00\x80'), (3900, f32(0.0)), (5100, b'\xff')))
    yield 'any_element_writes', b'\x01' + orbit(samples=80) + anywhere + orbit() + ALL_GETTERS
    still = [full_step((0.0, 0.0, 9.81), (0.0, 0.0, 0.0), (10.0, 20.0, -40.0))
             for _ in range(150)]
    yield 'still_no_gyro', b'\x00' + b''.join(still) + ALL_GETTERS
    yield 'orbit_no_gyro', b'\x00' + orbit() * 3 + ALL_GETTERS + u8(GETOFFSET)
    yield 'orbit_hw_gyro', b'\x01' + orbit(centre=(-20, 5, 60), yaw=3, pitch=2) * 3 + ALL_GETTERS
    specials = b''.join(u8(op) + sample(*v, code=c) for op, v, c in (
        (ACCEL, ('nan', 'inf', '-inf'), 0), (GYRO, ('denorm', '-denorm', 'fltmax'), 0),
        (MAGPAIR, ('1e20', '-fltmax', 'nan'), 0), (MAGPAIR, (30.0, 'snan', -40.0), 210),
        (MAGPAIR, (30.0, 20.0, -40.0), 253), (MAGPAIR, (31.0, 20.0, -40.0), 254),
        (MAGPAIR, (32.0, 20.0, -40.0), 255), (DOCALI, ('2^63', '-2^31', '65504'), 245)))
    yield 'extreme_values', b'\x00' + orbit(samples=64) + specials + ALL_GETTERS + orbit()
    yield 'broken_clock', b'\x01' + b''.join(
        u8(MAGPAIR) + sample(30.0, 20.0, -40.0, code=c) + u8(GYRO) + sample(0.1, 0.0, 0.2, code=c)
        for c in (0, 0, 220, 80, 0, 240, 230, 1, 199)) + ALL_GETTERS
    windows = b''.join(tunable(n, i16(v)) for n, v in (
        ('acc_sort_num', 40), ('acc_avg_num', -1), ('mag_sort_num', 32767), ('mag_avg_num', 33),
        ('dsc_data_size', 301), ('qvn_algo_odr', 0), ('gyr_cali_index', 299)))
    floats = b''.join(tunable(n, f32(v)) for n, v in (
        ('g_acc_filter_avg_num', 1000.0), ('g_mag_filter_mid_num', 'nan'),
        ('g_cali_data_size_multiple', 50.0), ('k7q_interference_threshold', 'inf')))
    yield 'tunables_around_init', (b'\x00' + windows + floats + init(0) + orbit() + windows +
                                   orbit(samples=128) + floats + orbit(samples=64) + ALL_GETTERS)
    modes = b''.join(
        tunable(n, u8(v) if n == 'g_slect_swgyro_mode' else i16(v)) + orbit(samples=100)
        for n, v in (('g_qvn_caliMethod', 0), ('g_qvn_caliMethod', 1), ('k7q_interference_mode', 1),
                     ('g_slect_swgyro_mode', 1), ('g_enable_softGyro_rv', 2),
                     ('g_optimal_compensation_mode', 9), ('mag_axis[1]', -3), ('acc_axis[0]', 7)))
    yield 'modes_and_axes', b'\x00' + modes + ALL_GETTERS
    interference = (u8(MAGPAIR) + sample(600.0, 20.0, -40.0) + orbit(samples=200) +
                    tunable('k7q_interference_mode', i16(0)) + u8(MAGPAIR) +
                    sample(-900.0, 0.0, 0.0) + orbit(samples=200))
    yield 'interference', b'\x00' + init(0) + interference + ALL_GETTERS
    offsets = (u8(SETOFFSET) + f32(12.349) + f32(-0.009) + f32('nan') + u8(GETOFFSET) +
               u8(ENABLE) + i32(7))
    yield 'nfc_logging_offsets', (b'\x80' + init(1, variant=1) + u8(LOG) + u8(1) + orbit() +
                                  offsets + init(1, variant=2 | 4) + orbit(samples=80) +
                                  ALL_GETTERS + init(0, variant=3 | 8) + orbit(samples=60))
    filters = b''.join(tunable(n, i16(v)) for n, v in (
        ('g_dri_filter_set', 1), ('g_enable_mag_kalman_filter', 3), ('g_radc', 1),
        ('g_enable_softGyro_rv', 2), ('normal_threshold_control', 1)))
    yield 'drift_filter_and_modes', (b'\x00' + filters + init(0) + filters + orbit() +
                                     orbit(step_ms=100, samples=120) + ALL_GETTERS)
    yield 'odd_hw_gyro', (b'\x02' + orbit(samples=60) + init(-1 & 0xFF) + orbit(samples=60) +
                          init(2, variant=12) + orbit(samples=60) + ALL_GETTERS)


# ---- fits harness: selectors of fits_fuzzer.cpp
SPHERE, ELLIPSOID, GYRO_FIT, DSC_VALID, FSS_VALID, INVERSE = range(6)
IDENTITY = (1.0, 0.0, 0.0, 0.0, 1.0, 0.0, 0.0, 0.0, 1.0)


def tail(hdi, sfi=IDENTITY, radius=45.0):
    return b''.join(f32(v) for v in hdi) + b''.join(f32(v) for v in sfi) + f32(radius)


def ellipsoid(centre, axes, shear, noise=0.5, seed=7):
    return (b''.join(f32(v) for v in centre) + b''.join(f32(v) for v in axes) +
            b''.join(f32(v) for v in shear) + f32(noise) + u8(seed))


def orbit_params(samples=256, step_ms=20, radius=45.0, centre=(12, -7, 30), yaw=2, pitch=3):
    return orbit(samples, step_ms, radius, centre, yaw, pitch, 16)[1:]


def fit_seeds():
    c = (10.0, -20.0, 30.0)
    sphere = ellipsoid(c, (45.0, 45.0, 45.0), (0.0, 0.0, 0.0))
    oval = ellipsoid(c, (48.0, 44.0, 41.0), (1.0, -2.0, 1.5))
    yield 'sphere', u8(SPHERE) + i16(300) + u8(1) + sphere + tail(c)
    yield 'sphere_short', u8(SPHERE) + i16(12) + u8(1) + sphere + tail(c)
    yield 'ellipsoid', u8(ELLIPSOID) + i16(300) + u8(1) + oval + tail(c)
    yield 'gyro_fit', u8(GYRO_FIT) + i16(300) + u8(1) + orbit_params() + tail((12.0, -7.0, 30.0))
    yield 'dsc_valid', (u8(DSC_VALID) + i16(200) + u8(1) + oval +
                        tail(c, (1.02, 0.0, 0.0, 0.01, 0.97, 0.0, -0.02, 0.03, 1.01)))
    yield 'fss_valid', u8(FSS_VALID) + i16(150) + u8(1) + sphere + tail(c)
    raw = b''.join(f32(v) for v in (1.0, 2.0, 3.0, 'nan', 5.0, 6.0, 'inf', 0.0, '-0', 40.0,
                                    -40.0, 0.0, 'denorm', 'fltmax', 1.0))
    yield 'raw_values', u8(ELLIPSOID) + i16(5) + u8(0) + raw + tail((0.0, 0.0, 0.0))
    yield 'negative_count', u8(SPHERE) + i16(-5) + u8(0) + tail((1.0, 2.0, 3.0))
    spd = b''.join(f32(math.sin(1.7 * i + 0.3) * 3.0) for i in range(81))
    yield 'inverse_normal_9', u8(INVERSE) + u8(9) + u8(1) + spd
    yield 'inverse_zero_pivot_3', u8(INVERSE) + u8(3) + u8(2) + spd
    swap = [0.0] * 81
    swap[1], swap[9], swap[20] = 1.0, 1.0, 2.0
    yield 'inverse_swap_3', u8(INVERSE) + u8(3) + u8(0) + b''.join(f32(v) for v in swap)
    yield 'inverse_size_10', u8(INVERSE) + u8(10) + u8(0) + spd


# ---- recovery harness: opcodes of recovery_fuzzer.cpp (samples carry no accuracy byte)
(L_ACC, L_GYRO, L_MAG, B_ACC, B_GYRO, B_MAG, B_INIT, L_OFFSET, B_OFFSET, VARIABLE, R_ORBIT,
 L_RECOVER) = range(12)


def rsample(op, x, y, z, code=STEP_20MS):
    return u8(op) + u8(code) + f32(x) + f32(y) + f32(z)


def rorbit(**kw):
    return u8(R_ORBIT) + orbit(**kw)[1:]


def variable(index, value):
    """A write of element `index` of the generated list of exported variables."""
    return u8(VARIABLE) + struct.pack('<H', index) + value


def recovery_seeds():
    yield 'orbit_then_bare_nan_mag', (b'\x01' + rorbit() + rsample(B_MAG, 'nan', 20.0, -40.0) +
                                      rorbit(samples=40))
    yield 'nan_everywhere_soft_gyro', b'\x00' + rorbit(samples=60) + b''.join((
        rsample(L_ACC, '-inf', 0.0, 9.81), rsample(B_ACC, '-inf', 0.0, 9.81),
        rsample(B_MAG, 30.0, 20.0, -40.0), rsample(B_GYRO, 'nan', 0.0, 0.0),
        u8(B_OFFSET) + f32('nan') + f32(0.0) + f32(0.0), u8(L_OFFSET) + f32('inf') * 3))
    yield 'nfc_offset_nan', (b'\x02' + rorbit(samples=60) + u8(B_OFFSET) + f32('nan') * 3 +
                             rsample(B_MAG, 30.0, 20.0, -40.0) + u8(B_INIT) + u8(0))
    yield 'variable_writes', b'\x01' + rorbit(samples=60) + b''.join(
        variable(i, f32(v)) for i, v in ((5, 'nan'), (40, 'inf'), (300, 0.0), (900, '-inf'),
                                         (2000, 1e20), (4000, 'nan'))) + rorbit(samples=60)
    yield 'clock_from_zero', b'\x01' + b''.join(
        rsample(L_MAG, 30.0, 20.0, -40.0, code=255) + rsample(L_GYRO, 0.1, 0.0, 0.2, code=0) +
        rsample(L_MAG, 31.0, 20.0, -40.0) + rsample(L_GYRO, 0.1, 0.0, 0.2, code=1)
        for _ in range(3)) + u8(L_RECOVER) + u8(B_INIT) + u8(2)


def main():
    for harness, seeds in (('host_calls_fuzzer', host_seeds()), ('fits_fuzzer', fit_seeds()),
                           ('recovery_fuzzer', recovery_seeds())):
        folder = os.path.join(HERE, 'corpus', harness)
        os.makedirs(folder, exist_ok=True)
        for old in os.listdir(folder):
            os.remove(os.path.join(folder, old))
        for name, data in seeds:
            with open(os.path.join(folder, name), 'wb') as f:
                f.write(data)


if __name__ == '__main__':
    main()
