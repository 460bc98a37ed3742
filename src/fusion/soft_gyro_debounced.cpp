// Debounced soft gyroscope: the soft gyroscope of soft_gyro.cpp with its own
// smoothing, angle shaping and motion detection.
//
// Against softgyro_calculation it differs in four things:
//   - smoothing: one low-pass with the magnetic ratio for both sensors,
//       p += r * (K - p), with no still/moving switch;
//   - angle shaping: increments theta >= normal_threshold are scaled by
//       normal_filter and start a ten-step hold-off, during which increments
//       <= non_normal_threshold pass unscaled (afterwards scaled by
//       non_normal_filter);
//   - motion: per-axis thresholds on the step-to-step difference d of the raw
//       input (bit 0 of g_debounce_number_*) or of the filtered vector
//       (bit 3); g_zdb_moving_times + 1 consecutive steps over a threshold
//       arm 2 * odr steps of motion;
//   - still state: rates fade linearly, gyr *= zdb_counter_2 / (2 * odr),
//       over 2 * odr steps instead of being cut to zero.
// Rates in rad/s; differences in the sensor's unit (m/s^2 or uT).
#include <math.h>

#include "cali/cali.h"
#include "fusion/fusion.h"
#include "fusion/soft_gyro_steps.h"

namespace {

constexpr uint16_t kRawDifferenceBit = 0x01;       // difference of the raw input
constexpr uint16_t kFilteredDifferenceBit = 0x08;  // difference of the filtered vector
constexpr float kHoldOffSteps = 10.0f;             // steps of unscaled small increments
constexpr float kFadeStep = 1.0f;                  // fade countdown per still step

// d = v - ref, then ref = v: the reference follows the vector every step
// on which the difference is formed.
void TakeDifference(const float v[3], float ref[3], float d[3]) {
  for (int i = 0; i < 3; ++i) {
    d[i] = v[i] - ref[i];
    ref[i] = v[i];
  }
}

void ShapeAngles(float theta[3]) {
  for (int i = 0; i < 3; ++i) {
    if (fabsf(theta[i]) <= non_normal_threshold) {
      if (dYPR_counts[i] == 0.0f) {
        theta[i] = theta[i] * non_normal_filter;
      } else {
        dYPR_counts[i] -= 1.0f;
      }
    }
    // Tested on the possibly scaled value, so a scale above 1 can carry a
    // small increment over the large threshold.
    if (fabsf(theta[i]) >= normal_threshold) {
      theta[i] = theta[i] * normal_filter;
      dYPR_counts[i] = kHoldOffSteps;
    }
  }
}

// One sensor's debounce: motion is declared on the step that follows
// g_zdb_moving_times over-threshold steps; a quiet step restarts the count.
void DetectMotion(const float d[3], float tx, float ty, float tz, int16_t &run) {
  if (fabsf(d[0]) > tx || fabsf(d[1]) > ty || fabsf(d[2]) > tz) {
    const int16_t before = run;
    run = static_cast<int16_t>(run + 1);
    if (before >= g_zdb_moving_times) {
      run = 0;
      zdb_counter = qvn::softgyro::MovingStateSteps();
      zdb_counter_2 = static_cast<float>(zdb_counter);
    }
  } else {
    run = 0;
  }
}

}  // namespace

int16_t softgyro_orvel(Vec3f *acc, Vec3f *mag, float gyr[3], float rov[4], float gra[3],
                       float lin[3], float dt) {
  namespace sg = qvn::softgyro;
  if (!sg::StartStep(*acc, *mag, dt)) return 0;

  // A sensor whose difference is never formed cannot declare motion.
  float d_acc[3] = {0.0f, 0.0f, 0.0f};
  float d_mag[3] = {0.0f, 0.0f, 0.0f};
  // The raw input is read before the smoothing overwrites the caller's
  // vectors; the Kalman stage above does not touch them.
  if ((g_debounce_number_acc & kRawDifferenceBit) != 0) {
    const float raw[3] = {acc->x, acc->y, acc->z};
    TakeDifference(raw, zdb_acc_prepre, d_acc);
  }
  if ((g_debounce_number_mag & kRawDifferenceBit) != 0) {
    const float raw[3] = {mag->x, mag->y, mag->z};
    TakeDifference(raw, zdb_mag_prepre, d_mag);
  }

  // The accelerometer deliberately uses the magnetic ratio here as well.
  const float r = g_lpf_mag_ratio;
  for (int i = 0; i < 3; ++i) {
    zdb_mag_pre[i] += r * (kmf_mag[i] - zdb_mag_pre[i]);
    zdb_acc_pre[i] += r * (kmf_acc[i] - zdb_acc_pre[i]);
  }
  sg::WriteBack(acc, mag);

  float theta[3];
  if (!sg::FilterAndAttitude(*acc, *mag, true, theta)) return 0;
  if (normal_threshold_control != 0) ShapeAngles(theta);
  // No zeroing in the still state: the fade below takes the rates down.
  for (int i = 0; i < 3; ++i) gyr[i] = sg::LimitRate(theta[i] / dt);
  if (sg::FinishOutputs(*acc, gyr, rov, gra, lin) == 0) return 0;

  if (g_en_gyr0_zero != 0) gyr[0] = 0.0f;
  if (g_en_gyr2_zero != 0) gyr[2] = 0.0f;

  // With both bits set, the filtered difference replaces the raw one.
  if ((g_debounce_number_acc & kFilteredDifferenceBit) != 0) {
    TakeDifference(zdb_acc_pre, zdb_acc_prepre, d_acc);
  }
  if ((g_debounce_number_mag & kFilteredDifferenceBit) != 0) {
    TakeDifference(zdb_mag_pre, zdb_mag_prepre, d_mag);
  }

  DetectMotion(d_acc, g_zdb_acc_threshold_x, g_zdb_acc_threshold_y, g_zdb_acc_threshold_z,
               zdb_moving_number_acc);
  DetectMotion(d_mag, g_zdb_mag_threshold_x, g_zdb_mag_threshold_y, g_zdb_mag_threshold_z,
               zdb_moving_number_mag);

  if (zdb_counter != 0) {
    // Moving: rates pass at full value.
    zdb_counter = static_cast<int16_t>(zdb_counter - 1);
    return 1;
  }
  // Still: fade from the full rate to 0 over the next 2 * odr steps. The
  // division is in float; an odr of 0 gives a non-finite scale, not a trap.
  if (zdb_counter_2 > 0.0f) zdb_counter_2 -= kFadeStep;
  const float scale = zdb_counter_2 / static_cast<float>(sg::MovingStateSteps());
  for (int i = 0; i < 3; ++i) gyr[i] = gyr[i] * scale;
  return 1;
}
