// The per-sample calibration driver.
//
// For each magnetometer sample m (uT) with the latest accelerometer and
// gyroscope samples beside it:
//   m <- clamp(S_dev * m)                 device soft-iron, +-field range
//   u  = m * rad_ratio - h                calibrated field with the offset h
//   u <- clamp(S * u)                     only in calibration mode 0
// then one step of the calibration method, adoption of its result, the
// optional Kalman filter, re-grading of the accuracy and the optional drift
// filter (drift_filter.h). The driver is in one of three regimes per sample:
//   hold         (mag_interf_countdown != 0): no fitting; a raw axis above
//                k7q_interference_threshold restarts an interference period;
//   interference (interf_cnt_cnt != 0): fitting with the interference limits
//                and method, one sample of the period used up per call;
//   normal:      the ball method, with limits chosen by the accuracy level.
// All three input vectors are changed in place (clamped, remapped, gyroscope
// bias removed); the host's stored samples carry those changes.
#include <math.h>

#include "cali/cali.h"
#include "cali/drift_filter.h"
#include "cali/static_sfi_log.h"
#include "common/log.h"
#include "fusion/fusion.h"
#include "math/convert.h"
#include "math/math.h"
#include "optimal/optimal.h"

namespace {

constexpr uint16_t kRepeatedTimestamp = 65534;
constexpr int16_t kHoldCode = -1;  // 65535 as the unsigned step code
constexpr double kNsPerSecond = 1e9;

constexpr int16_t kModeOval = 0;
constexpr int16_t kModeBall = 2;
constexpr int16_t kInterferencePeriod = 4;  // cali_mode_mode while a period runs
constexpr int16_t kFullAccuracy = 3;
constexpr int16_t kFirstOffsetCode = 5;  // codes from here on may seed an offset
constexpr int16_t kFirstOffsetAccuracy = 1;

// Low-rate radius rescaling (uT, Hz).
constexpr int16_t kRescaleMaxRate = 10;
constexpr float kSmallRadius = 30.0f, kSmallTarget = 35.0f;
constexpr float kLargeRadius = 60.0f, kLargeTarget = 55.0f;
constexpr float kPercent = 100.0f;

// Periodic lines: the counters admit one line per this many logged calls + 1.
constexpr int16_t kVersionEvery = 1001;
constexpr int16_t kStaticSfiEvery = 1234;
constexpr int kStartLine = 852, kVersionLine = 855;

float Clamp(float v) {
  // Two tests in this order: a NaN passes both unchanged.
  if (v > mag_field_range) v = mag_field_range;
  if (v < -mag_field_range) v = -mag_field_range;
  return v;
}

// v <- clamp(s * v), row-major, each row summed left to right.
void ApplyMatrix(const float s[9], float v[3]) {
  const float x = s[0] * v[0] + s[1] * v[1] + s[2] * v[2];
  const float y = s[3] * v[0] + s[4] * v[1] + s[5] * v[2];
  const float z = s[6] * v[0] + s[7] * v[1] + s[8] * v[2];
  v[0] = Clamp(x);
  v[1] = Clamp(y);
  v[2] = Clamp(z);
}

void Calibrate(const float mag[3], float u[3]) {
  for (int i = 0; i < 3; ++i) u[i] = mag[i] * rad_ratio - hdi_array[i];
}

void Copy3(float dst[3], const float src[3]) {
  dst[0] = src[0];
  dst[1] = src[1];
  dst[2] = src[2];
}

// Limits and spacing of the collection for one regime.
void ApplyLimits(float dist, float wide, float rate) {
  dsc_mag_distance = dist / qvn_sqrt(static_cast<float>(qvn_algo_odr));
  g_cali_radius_threshold_wide = wide;
  g_cali_radius_threshold_rate = rate;
  set_mag_cali_radius_range(g_cali_radius_threshold_max, g_cali_radius_threshold_min, wide, rate);
}

void RescaleRadius() {
  if (g_radc == 1 && qvn_algo_odr <= kRescaleMaxRate) {
    // Between the two bounds the ratio keeps whatever it was.
    if (cali_radius < kSmallRadius) {
      rad_ratioint = qvn::TruncToI16(kSmallTarget / cali_radius * kPercent);
      rad_ratio = static_cast<float>(rad_ratioint) / kPercent;
    }
    if (cali_radius > kLargeRadius) {
      rad_ratioint = qvn::TruncToI16(kLargeTarget / cali_radius * kPercent);
      rad_ratio = static_cast<float>(rad_ratioint) / kPercent;
    }
  } else {
    rad_ratio = 1.0f;
  }
}

// Normal and interference regimes: spacing, radius limits and method for this
// sample, then one step of the dispatcher on a copy of the matrix in force.
int16_t SelectAndFit(const float mag[3], const float gyro[3], float dt, float sfi[9], float hdi[3],
                     bool print) {
  for (int i = 0; i < 9; ++i) sfi[i] = sfi_array[i];
  if (qvn_accuracy == kFullAccuracy) {
    mag_cali_mode = (cali_mode_mode == kInterferencePeriod)
                        ? static_cast<int16_t>(k7q_interference_mode)
                        : kModeBall;
    ApplyLimits(g_qvn_cailDataDist_calied, g_cali_radius_threshold_wide_calied,
                g_cali_radius_threshold_rate_calied);
  } else {
    mag_cali_mode = kModeBall;
    cali_mode_mode = 0;
    ApplyLimits(g_qvn_cailDataDist, g_cali_radius_threshold_wide_uncalied,
                g_cali_radius_threshold_rate_uncalied);
  }
  // An interference period overrides both, one sample of it used per call.
  if (interf_cnt_cnt != 0) {
    ApplyLimits(g_qvn_cailDataDist_interfd, g_cali_radius_threshold_wide_interfd,
                g_cali_radius_threshold_rate_interfd);
    cali_mode_mode = kInterferencePeriod;
    mag_cali_mode = static_cast<int16_t>(k7q_interference_mode);
    interf_cnt_cnt = static_cast<int16_t>(interf_cnt_cnt - 1);
  }
  if (print) {
    QVN_LOGD(
        "QVNlib: dsc_mag_distance: g_cali_radius_threshold_wide: g_cali_radius_threshold_rate: "
        "qvn_algo_odr:  %f,%f,%f,%d\r\n",
        dsc_mag_distance, g_cali_radius_threshold_wide, g_cali_radius_threshold_rate, qvn_algo_odr);
    QVN_LOGD(
        "QVNlib: interf_cnt_cnt: k7q_interference_threshold: mag_cali_mode: cali_mode_mode:: "
        "%d,%f,%d,%d\r\n",
        interf_cnt_cnt, k7q_interference_threshold, mag_cali_mode, cali_mode_mode);
  }
  return mag_calibration(mag, gyro, static_cast<uint16_t>(mag_cali_mode), sfi, hdi, qvn_gyroflag,
                         dt);
}

// Kind-1 adoption of a validated fit, in the order the host-visible state has
// always changed.
void AdoptFit(const float sfi[9], const float hdi[3], bool logging, bool print) {
  // The matrix follows the log switch: a quiet build keeps its matrix. This
  // coupling is relied on by existing devices and must stay.
  if (logging && mag_cali_mode == kModeOval) {
    for (int i = 0; i < 9; ++i) sfi_array[i] = sfi[i];
    sfi_update = 1;
  }
  qvn_accuracy = mag_quad_accuracy;
  for (float &d : D_offset) d = 0.0f;
  fusion_startup = 1;
  for (int i = 0; i < 3; ++i) hdi_array[i] = hdi[i] * rad_ratio;
  cali_update = 1;
  fusion_start_delay_counter = fusion_start_delay_time;
  qvn_radius = cali_radius * rad_ratio;
  if (print) {
    QVN_LOGD("QVNlib: qvn_accuracy :%d\r\n", qvn_accuracy);
    QVN_LOGD("QVNlib: qvn_radius   :%f\r\n", qvn_radius);
  }
}

}  // namespace

void sensor_placement_adjustment(float v[3], const int16_t axis[3]) {
  // Codes are +-1..3. Anything else (including 0, which would address the
  // element before the vector) leaves the vector as it is.
  for (int i = 0; i < 3; ++i) {
    if (axis[i] == 0 || axis[i] > 3 || axis[i] < -3) return;
  }
  const float old[3] = {v[0], v[1], v[2]};
  for (int i = 0; i < 3; ++i) {
    const int16_t code = axis[i];
    const float sign = code < 0 ? -1.0f : 1.0f;
    v[i] = sign * old[(code < 0 ? -code : code) - 1];
  }
}

void qvn_get_magneticfield(float field[3], float bias[3], uint16_t *accuracy) {
  Copy3(field, qvn_mag);
  Copy3(bias, hdi_array);
  *accuracy = static_cast<uint16_t>(qvn_accuracy);
}

void qvn_get_nonfilter_mag(float field[3], float bias[3], uint16_t *accuracy) {
  Copy3(field, qvn_nonfilter_mag);
  Copy3(bias, hdi_array);
  *accuracy = static_cast<uint16_t>(qvn_accuracy);
}

uint16_t qvn_DoMagCali(float acc[3], float mag[3], float gyro[3], uint64_t timestamp_ns) {
  float hdi_candidate[3] = {0.0f, 0.0f, 0.0f};
  float sfi_candidate[9] = {1.0f, 0.0f, 0.0f, 0.0f, 1.0f, 0.0f, 0.0f, 0.0f, 1.0f};
  const bool logging = g_en_mtkScpLog != 0;
  // Lines are only formatted for a log that takes them; the line counters
  // follow the switch alone, as they always have.
  const bool print = logging && qvn::DebugLogOn();

  if (logging) {
    if (print) QVN_LOGD("QVNlib:[%s: %d]: Start\r\n", "qvn_DoMagCali", kStartLine);
    const int16_t n = log_cnt_lib;
    log_cnt_lib = static_cast<int16_t>(n + 1);
    if (n >= kVersionEvery) {
      log_cnt_lib = 0;
      if (print) {
        QVN_LOGD("QVNlib:[%s: %d]: Version:%s,Date:%s\r\n", "qvn_DoMagCali", kVersionLine,
                 "SRC68_QVN_KQ7_COMPATIBLE_02", "20240709_5");
      }
    }
  }

  qvn_odr_calculate(timestamp_ns);
  ApplyMatrix(static_sfi, mag);
  qvn_mag_interference(mag);
  // The stored accelerometer and gyroscope samples are remapped on every call;
  // a sample not renewed in between is remapped again. Kept as it always was.
  sensor_placement_adjustment(acc, acc_axis);
  sensor_placement_adjustment(mag, mag_axis);
  sensor_placement_adjustment(gyro, gyr_axis);
  qvn_cali_gyro(gyro);

  // A repeated sample stops here, after the in-place corrections above.
  if (timestamp_cali == timestamp_ns) return kRepeatedTimestamp;
  const uint64_t previous = timestamp_cali;
  timestamp_cali = timestamp_ns;
  // The first sample after load measures from 0 and hands on a huge dt.
  const float dt = static_cast<float>(
      static_cast<double>(static_cast<float>(timestamp_ns - previous)) / kNsPerSecond);

  float u[3];
  Calibrate(mag, u);
  if (logging) {
    if (print) {
      QVN_LOGD("QVNlib: Mag_uncali_rawdata[x,y,z]: %f,%f,%f \r\n", mag[0], mag[1], mag[2]);
      QVN_LOGD("QVNlib: delta_time :%f\r\n", dt);
      QVN_LOGD("QVNlib: Mag_cali_data[x,y,z]: %f,%f,%f\r\n", u[0], u[1], u[2]);
      QVN_LOGD("QVNlib: hdi[x,y,z]: %f,%f,%f\r\n", hdi_array[0], hdi_array[1], hdi_array[2]);
    }
    const int16_t n = log_cnt_lib2;
    log_cnt_lib2 = static_cast<int16_t>(n + 1);
    if (n >= kStaticSfiEvery) {
      log_cnt_lib2 = 0;
      if (print) qvn::LogStaticSfi();
    }
  }
  if (mag_cali_mode == kModeOval) ApplyMatrix(sfi_array, u);

  int16_t code = kHoldCode;
  if (mag_interf_countdown != 0) {
    // Hold: nothing is fitted. A strong raw field (re)starts the interference
    // period at its full length in samples (a 16-bit product).
    if (fabsf(mag[0]) > k7q_interference_threshold || fabsf(mag[1]) > k7q_interference_threshold ||
        fabsf(mag[2]) > k7q_interference_threshold) {
      interf_cnt_cnt = static_cast<int16_t>(qvn_algo_odr * interf_cnt_cnt_sec);
    }
  } else {
    code = SelectAndFit(mag, gyro, dt, sfi_candidate, hdi_candidate, print);
  }

  RescaleRadius();

  bool adopted_fit = false;    // kind 1: a validated fit
  bool adopted_first = false;  // kind 2: the first offset of an oval run
  if (code != 0) {
    // The hold code compares as -1 here and never seeds an offset.
    if (code >= kFirstOffsetCode && mag_cali_mode == kModeOval && qvn_accuracy <= 0) {
      qvn_accuracy = kFirstOffsetAccuracy;
      for (int i = 0; i < 3; ++i) hdi_array[i] = hdi_candidate[i] * rad_ratio;
      adopted_first = true;
    }
  } else if (!(mag_quad_accuracy < qvn_accuracy || (mag_quad_accuracy == 1 && qvn_accuracy == 1))) {
    AdoptFit(sfi_candidate, hdi_candidate, logging, print);
    adopted_fit = true;
  }

  if (adopted_fit || adopted_first) {
    Calibrate(mag, u);
    if (mag_cali_mode == kModeOval) ApplyMatrix(sfi_array, u);
    if (print) {
      QVN_LOGD("QVNlib: qvn_cali done\r\n");
      QVN_LOGD("QVNlib: mag_cali[0-2]%f,%f,%f\r\n", u[0], u[1], u[2]);
    }
    Copy3(magnet_pre, u);
    Copy3(m_kmf_output, u);
  }

  Copy3(sg_mag, u);
  Copy3(qvn_mag, u);
  Copy3(qvn_nonfilter_mag, u);
  if ((g_enable_mag_kalman_filter & 1u) != 0) optimal_mag_filter(qvn_mag);

  // No re-grading right after an adoption. A kind-1 adoption and any change
  // of level start a fresh batch; the first-offset seed keeps the batch.
  const int16_t level =
      (adopted_fit || adopted_first) ? qvn_accuracy : qvn_accuracy_level(qvn_mag, qvn_accuracy);
  if (adopted_fit || level != qvn_accuracy) {
    clear_data_buffer();
    qvn_accuracy = level;
  }

  if (g_dri_filter_set == 1) qvn::DriftFilter(u, gyro, adopted_fit);
  return 0;
}
