// Soft (virtual) gyroscope: angular rate from two successive attitudes built
// from the accelerometer and the magnetic field, for phones without a gyro.
//
//   a, m     filtered unit vectors, x and y exchanged (attitude frame)
//   e = (a x m) / |a x m|,   N = e x a,   A_k = [N e a] (columns)
//   dA = A_k * A_{k-1}^T,    theta = angles of dA (rad per step)
//   gyr = theta / dt (rad/s, sensor axes), rov = quaternion of A_k (x, y, z, w)
//   gra = 9.81 * filtered unit accelerometer, lin = smoothed acc - gra
//
// Before the attitude is built, both vectors pass a scalar Kalman filter, a
// still/moving dead band, and the median/mean filters. Rates pass only in the
// moving state, which both sensors must arm together. This file also holds
// the steps that the debounced variant shares (soft_gyro_steps.h).
#include <math.h>

#include "cali/cali.h"
#include "fusion/fusion.h"
#include "fusion/soft_gyro_steps.h"
#include "math/convert.h"
#include "math/math.h"
#include "optimal/optimal.h"

namespace qvn {
namespace softgyro {
namespace {

constexpr float kSeedGapS = 0.5f;             // s, a longer gap restarts the seeding
constexpr uint16_t kSeedCountBit = 0x02;      // g_enable_mag_kalman_filter: count seeds
constexpr float kGravity = 9.81f;             // m/s^2 per g
constexpr double kRateLimitRadS = 34.906585039888895;  // 2000 deg/s
constexpr float kRateLimitValue = 34.906586f;          // what a clamped rate becomes
constexpr double kCarryStepRadS = 0.08;       // largest z rate paid out per step
constexpr double kCarryPassRadS = 0.32;       // z rates from here on pass unlimited
constexpr float kCarryStepValue = 0.08f;
constexpr double kSaneRateRadS = 27.77777777777778;  // above this the step is noise
constexpr double kDegPerHalfTurn = 180.0;

void Cross(const float u[3], const float v[3], float out[3]) {
  out[0] = u[1] * v[2] - u[2] * v[1];
  out[1] = u[2] * v[0] - u[0] * v[2];
  out[2] = u[0] * v[1] - u[1] * v[0];
}

float SignedStep(float v) { return v < 0.0f ? -kCarryStepValue : kCarryStepValue; }

// Moderate z rates are limited to one step of 0.08 rad/s; the excess is kept
// and paid out over later small-rate steps. Large rates pass and take any
// carry once. The thresholds are compared in double.
void CarryZRate(float gyr[3]) {
  const float g = gyr[2];
  const double mag = fabs(static_cast<double>(g));
  if (mag > kCarryStepRadS && mag < kCarryPassRadS) {
    gyr[2] = SignedStep(g);
    qvn_gyro_drps = g - gyr[2];
    return;
  }
  const float with_carry = g + qvn_gyro_drps;
  float carry = 0.0f;
  if (mag < kCarryPassRadS && fabs(static_cast<double>(with_carry)) > kCarryStepRadS) {
    gyr[2] = SignedStep(with_carry);
    carry = with_carry - gyr[2];
  } else {
    gyr[2] = with_carry;
  }
  qvn_gyro_drps = carry;
}

// Still/moving dead band of softgyro_calculation. The moving state is armed
// only when the accelerometer moved on some axis and the field moved in x or
// y (z is never tested) against the held reference while still, or against
// the last filtered field while moving.
void DeadBand() {
  float d_acc[3];
  for (int i = 0; i < 3; ++i) d_acc[i] = kmf_acc[i] - zdb_acc_pre[i];
  const float t = zdb_acc_threshold;
  const float *ref = (zdb_counter < 1) ? zdb_mag_hold : zdb_mag_pre;
  if (fabsf(d_acc[0]) >= t || fabsf(d_acc[1]) >= t || fabsf(d_acc[2]) >= t) {
    if (fabsf(kmf_mag[0] - ref[0]) > g_zdb_mag_threshold ||
        fabsf(kmf_mag[1] - ref[1]) > g_zdb_mag_threshold) {
      zdb_counter = MovingStateSteps();
    }
  }
  // With the start-up values the still state passes the estimates straight
  // through (ratio 1) and the moving state halves the step (0.5); that
  // inversion is how the filter was tuned and is kept.
  const bool moving = zdb_counter != 0;
  float acc_ratio = zdb_acc_ratio;
  float mag_ratio = zdb_mag_ratio;
  if (moving) {
    zdb_counter = static_cast<int16_t>(zdb_counter - 1);
    acc_ratio = g_lpf_acc_ratio;
    mag_ratio = g_lpf_mag_ratio;
  }
  for (int i = 0; i < 3; ++i) {
    zdb_mag_pre[i] += mag_ratio * (kmf_mag[i] - zdb_mag_pre[i]);
    zdb_acc_pre[i] += acc_ratio * d_acc[i];
  }
  if (moving) {
    for (int i = 0; i < 3; ++i) zdb_mag_hold[i] = zdb_mag_pre[i];
  }
}

}  // namespace

int16_t MovingStateSteps() { return static_cast<int16_t>(2 * qvn_algo_odr); }

bool StartStep(const Vec3f &acc, const Vec3f &mag, float dt) {
  if (dt <= 0.0f) return false;
  int16_t n = qvn_gyro_1st_data;
  if (dt > kSeedGapS) {
    n = 0;
    qvn_gyro_1st_data = 0;
  }
  // One gain per sensor serves all three axes.
  kmf_pt = kmf_a * kmf_a * kmf_p + g_kmf_q;
  kmf_g = kmf_pt / (kmf_pt + g_kmf_r);
  acckmf_pt = acckmf_a * acckmf_a * acckmf_p + g_accKmf_q;
  acckmf_g = acckmf_pt / (acckmf_pt + g_accKmf_r);

  const float a[3] = {acc.x, acc.y, acc.z};
  const float m[3] = {mag.x, mag.y, mag.z};
  const bool count_seeds = (g_enable_mag_kalman_filter & kSeedCountBit) != 0;
  for (int i = 0; i < 3; ++i) {
    if (n < kSeedSamples) {
      // The seed count runs per axis, so one sample seeds all three. With
      // the count bit clear it never moves and the estimates track the input.
      kmf_acc[i] = a[i];
      kmf_mag[i] = m[i];
      if (count_seeds) {
        n = static_cast<int16_t>(n + 1);
        qvn_gyro_1st_data = n;
      }
    } else {
      const float ea = acckmf_a * kmf_acc[i];
      kmf_acc[i] = ea + acckmf_g * (a[i] - ea);
      const float em = kmf_a * kmf_mag[i];
      kmf_mag[i] = em + kmf_g * (m[i] - em);
    }
  }
  kmf_p = kmf_pt - kmf_pt * kmf_g;
  acckmf_p = acckmf_pt - acckmf_pt * acckmf_g;
  return true;
}

void WriteBack(Vec3f *acc, Vec3f *mag) {
  acc->x = zdb_acc_pre[0];
  acc->y = zdb_acc_pre[1];
  acc->z = zdb_acc_pre[2];
  mag->x = zdb_mag_pre[0];
  mag->y = zdb_mag_pre[1];
  mag->z = zdb_mag_pre[2];
}

bool FilterAndAttitude(const Vec3f &acc, const Vec3f &mag, bool reject_zero_mag_unit,
                       float theta[3]) {
  const float a_in[3] = {acc.x, acc.y, acc.z};
  const float m_in[3] = {mag.x, mag.y, mag.z};
  // Both filters take their sample before either result is looked at, so a
  // refused accelerometer sample does not stall the magnetometer's rings.
  const int16_t acc_ok = acc_data_filter_func(a_in, zdb_acc_pre, 1);
  const int16_t mag_ok = mag_data_filter_func(m_in, zdb_mag_pre, 1);
  if (acc_ok == 0 || mag_ok == 0) return false;

  if (zdb_acc_pre[0] == 0.0f && zdb_acc_pre[1] == 0.0f && zdb_acc_pre[2] == 0.0f) return false;
  float a[3];
  if (sensor_data_normalize(a, zdb_acc_pre) == 0) return false;
  if (zdb_mag_pre[0] == 0.0f && zdb_mag_pre[1] == 0.0f && zdb_mag_pre[2] == 0.0f) return false;
  float m[3];
  if (sensor_data_normalize(m, zdb_mag_pre) == 0) return false;
  // An overflowing norm can leave an all-zero "unit" vector.
  if (reject_zero_mag_unit && m[0] == 0.0f && m[1] == 0.0f && m[2] == 0.0f) return false;

  // The attitude frame has its first two axes exchanged against the sensor's.
  const float as[3] = {a[1], a[0], a[2]};
  const float ms[3] = {m[1], m[0], m[2]};
  float e[3];
  Cross(as, ms, e);
  const float e_norm = qvn_sqrt((e[0] * e[0] + e[1] * e[1]) + e[2] * e[2]);
  if (e_norm <= 0.0f) return false;  // field parallel to gravity
  for (int i = 0; i < 3; ++i) e[i] = e[i] / e_norm;
  float nv[3];
  Cross(e, as, nv);

  for (int r = 0; r < 3; ++r) {
    BRM_dev[3 * r + 0] = nv[r];
    BRM_dev[3 * r + 1] = e[r];
    BRM_dev[3 * r + 2] = as[r];
  }
  for (int r = 0; r < 3; ++r) {
    for (int c = 0; c < 3; ++c) {
      BRM[3 * r + c] = (BRM_dev[3 * r] * BRM_ref_inv[c] + BRM_dev[3 * r + 1] * BRM_ref_inv[3 + c]) +
                       BRM_dev[3 * r + 2] * BRM_ref_inv[6 + c];
    }
  }
  for (int r = 0; r < 3; ++r) {
    for (int c = 0; c < 3; ++c) BRM_ref_inv[3 * c + r] = BRM_dev[3 * r + c];
  }

  // Each angle is 0 where its function would be undefined.
  theta[0] = (BRM[2] == 0.0f && BRM[8] == 0.0f) ? 0.0f : qvn_atan2(BRM[2], BRM[8]);
  theta[1] = (fabsf(BRM[5]) <= 1.0f) ? qvn_asin(-BRM[5]) : 0.0f;
  theta[2] = (BRM[3] == 0.0f && BRM[4] == 0.0f) ? 0.0f : qvn_atan2(BRM[3], BRM[4]);
  return true;
}

float LimitRate(float rate) {
  // Inside the dead band the rate is squashed quadratically, not cut to 0.
  const double band = static_cast<double>(debounce_degree) * qvn::kPi / kDegPerHalfTurn;
  if (band > static_cast<double>(fabsf(rate))) rate = rate * fabsf(rate);
  if (static_cast<double>(fabsf(rate)) > kRateLimitRadS) {
    rate = rate < 0.0f ? -kRateLimitValue : kRateLimitValue;
  }
  return rate;
}

int16_t FinishOutputs(const Vec3f &acc, float gyr[3], float rov[4], float gra[3], float lin[3]) {
  const float *d = BRM_dev;
  // Rotation vector: quaternion magnitudes from the diagonal. Rounding can
  // push a term of an exact zero component slightly negative; such a step is
  // refused rather than patched.
  float qx = ((1.0f - d[0]) + d[4]) - d[8];
  float qy = ((1.0f + d[0]) - d[4]) - d[8];
  float qz = ((1.0f - d[0]) - d[4]) + d[8];
  float qw = ((1.0f + d[0]) + d[4]) + d[8];
  if (qx < 0.0f || qy < 0.0f || qz < 0.0f || qw < 0.0f) return 0;
  qx = qvn_sqrt(qx) * 0.5f;
  qy = qvn_sqrt(qy) * 0.5f;
  qz = qvn_sqrt(qz) * 0.5f;
  qw = qvn_sqrt(qw) * 0.5f;
  // Signs from the skew part; the swapped frame makes them come out as the
  // quaternion of the sensor-to-world rotation (x east, y north, z up).
  const float x = (qw * (d[6] - d[2]) >= 0.0f) ? -qx : qx;
  const float y = (qw * (d[5] - d[7]) >= 0.0f) ? -qy : qy;
  const float z = (qw * (d[1] - d[3]) >= 0.0f) ? -qz : qz;
  const float w = qw;
  const float s = ((w * w + x * x) + y * y) + z * z;
  if (s <= 0.0f) return 0;
  const float n = qvn_sqrt(s);
  rov[0] = x / n;
  rov[1] = y / n;
  rov[2] = z / n;
  rov[3] = w / n;

  // Column 2 of the attitude is the unit accelerometer with x and y swapped.
  gra[0] = d[5] * kGravity;
  gra[1] = d[2] * kGravity;
  gra[2] = d[8] * kGravity;
  lin[0] = acc.x - gra[0];
  lin[1] = acc.y - gra[1];
  lin[2] = acc.z - gra[2];

  CarryZRate(gyr);
  if (fabs(static_cast<double>(gyr[0])) > kSaneRateRadS ||
      fabs(static_cast<double>(gyr[1])) > kSaneRateRadS ||
      fabs(static_cast<double>(gyr[2])) > kSaneRateRadS) {
    gyr[0] = 0.0f;
    gyr[1] = 0.0f;
    gyr[2] = 0.0f;
  }
  return 1;
}

}  // namespace softgyro
}  // namespace qvn

int16_t softgyro_calculation(Vec3f *acc, Vec3f *mag, float gyr[3], float rov[4], float gra[3],
                             float lin[3], float dt) {
  namespace sg = qvn::softgyro;
  if (!sg::StartStep(*acc, *mag, dt)) return 0;
  sg::DeadBand();
  sg::WriteBack(acc, mag);
  float theta[3];
  if (!sg::FilterAndAttitude(*acc, *mag, false, theta)) return 0;
  // Rates pass only in the moving state; a still device reports 0.
  const bool still = zdb_counter == 0;
  for (int i = 0; i < 3; ++i) {
    const float rate = still ? 0.0f : theta[i] / dt;
    gyr[i] = sg::LimitRate(rate);
  }
  return sg::FinishOutputs(*acc, gyr, rov, gra, lin);
}
