// Ground truth for the soft-gyroscope tests: a device turning at a constant
// body rate in a fixed Earth field, and the start-up settings that the fusion
// driver applies to the soft gyroscope.
//
// World: x east, y north, z up. The attitude R maps sensor axes to world
// axes; a still accelerometer reads R^T (0, 0, g) and the magnetometer
// R^T (0, 20, -40) uT. A constant body rate w advances R by R <- R exp([w dt]).
#ifndef QVNLIB_TESTS_FUSION_SOFT_GYRO_SCENE_H
#define QVNLIB_TESTS_FUSION_SOFT_GYRO_SCENE_H

#include <math.h>

#include "cali/cali.h"
#include "fusion/fusion.h"

namespace sg_test {

constexpr double kG = 9.81;                       // m/s^2
constexpr double kField[3] = {0.0, 20.0, -40.0};  // uT, world

struct Mat3 {
  double m[9];
};

inline Mat3 Identity() { return Mat3{{1, 0, 0, 0, 1, 0, 0, 0, 1}}; }

inline Mat3 Mul(const Mat3 &a, const Mat3 &b) {
  Mat3 r;
  for (int i = 0; i < 3; ++i) {
    for (int j = 0; j < 3; ++j) {
      r.m[3 * i + j] = a.m[3 * i] * b.m[j] + a.m[3 * i + 1] * b.m[3 + j] + a.m[3 * i + 2] * b.m[6 + j];
    }
  }
  return r;
}

// Rotation by angle (rad) about the axis (x, y, z), which need not be unit.
inline Mat3 AxisAngle(double x, double y, double z, double angle) {
  const double n = sqrt(x * x + y * y + z * z);
  if (n == 0.0) return Identity();
  x /= n;
  y /= n;
  z /= n;
  const double c = cos(angle), s = sin(angle), t = 1.0 - c;
  return Mat3{{t * x * x + c, t * x * y - s * z, t * x * z + s * y,  //
               t * x * y + s * z, t * y * y + c, t * y * z - s * x,  //
               t * x * z - s * y, t * y * z + s * x, t * z * z + c}};
}

// Readings of a still device at attitude r.
inline void Readings(const Mat3 &r, Vec3f *acc, Vec3f *mag) {
  const double up[3] = {0.0, 0.0, kG};
  float a[3], m[3];
  for (int i = 0; i < 3; ++i) {
    a[i] = static_cast<float>(r.m[i] * up[0] + r.m[3 + i] * up[1] + r.m[6 + i] * up[2]);
    m[i] = static_cast<float>(r.m[i] * kField[0] + r.m[3 + i] * kField[1] + r.m[6 + i] * kField[2]);
  }
  *acc = Vec3f{a[0], a[1], a[2]};
  *mag = Vec3f{m[0], m[1], m[2]};
}

// Gravity in sensor axes, R^T (0, 0, g).
inline void Gravity(const Mat3 &r, double out[3]) {
  for (int i = 0; i < 3; ++i) out[i] = r.m[6 + i] * kG;
}

// Quaternion (x, y, z, w) of r with w >= 0 (r not a half turn).
inline void Quaternion(const Mat3 &r, double q[4]) {
  const double w = 0.5 * sqrt(1.0 + r.m[0] + r.m[4] + r.m[8]);
  q[0] = (r.m[7] - r.m[5]) / (4.0 * w);
  q[1] = (r.m[2] - r.m[6]) / (4.0 * w);
  q[2] = (r.m[3] - r.m[1]) / (4.0 * w);
  q[3] = w;
}

// One step of a soft-gyroscope variant and everything it reports.
using SoftGyroFn = int16_t (*)(Vec3f *, Vec3f *, float *, float *, float *, float *, float);

struct Outputs {
  int16_t result;
  float gyr[3], rov[4], gra[3], lin[3];
};

inline Outputs Run(SoftGyroFn variant, Vec3f acc, Vec3f mag, float dt) {
  Outputs o{};
  o.result = variant(&acc, &mag, o.gyr, o.rov, o.gra, o.lin, dt);
  return o;
}

// One step on the readings of a still device at attitude r.
inline Outputs Run(SoftGyroFn variant, const Mat3 &r, float dt) {
  Vec3f acc, mag;
  Readings(r, &acc, &mag);
  return Run(variant, acc, mag, dt);
}

// The soft-gyroscope part of the fusion start-up, at the given output rate.
inline void StartUp(int16_t odr_hz) {
  qvn_algo_odr = odr_hz;
  qvn_softgyro_initialize();
  const float acc_len[2] = {g_acc_filter_avg_num, g_acc_filter_mid_num};
  const float mag_len[2] = {g_mag_filter_avg_num, g_mag_filter_mid_num};
  const float band[1] = {g_gyr_filter_expo_threshold};
  set_softgyro_filter(1, acc_len);
  set_softgyro_filter(2, mag_len);
  set_softgyro_filter(3, band);
  zdb_acc_threshold = g_zdb_acc_switch_threshold;
  zdb_mag_ratio = g_zdb_mag_set;
  zdb_acc_ratio = g_zdb_acc_set;
}

// Every smoothing stage set to pass its input through (windows of one
// sample, Kalman gain 1, low-pass ratio 1), so that a step's rate is the
// attitude change of that step alone.
inline void PassThrough() {
  const float one[2] = {1.0f, 1.0f};
  set_softgyro_filter(1, one);
  set_softgyro_filter(2, one);
  g_kmf_r = 0.0f;
  g_accKmf_r = 0.0f;
  g_lpf_acc_ratio = 1.0f;
  g_lpf_mag_ratio = 1.0f;
}

}  // namespace sg_test

#endif  // QVNLIB_TESTS_FUSION_SOFT_GYRO_SCENE_H
