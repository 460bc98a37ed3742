// Method dispatch and the acceptance test of a fitted calibration.
//
// mag_calibration forwards each sample to the method the driver chose
// (0 oval, 1 gyroscope-aided, 2 ball; anything else gives 255).
//
// dsc_sfi_hdi_is_valid accepts an offset h (uT), a soft-iron matrix S and a
// fitted radius R when, in this order:
//   |h_k| <= field range on every axis;
//   S is lower triangular (upper elements exactly 0) with each lower element
//   inside its bounds;
//   the corrected radii r_i = |S (m_i - h)| have a mean inside the radius
//   limits, R is inside them too, and no more than out_rate * n radii lie
//   further than mag_radius_wide from that mean.
// Each stage writes its code into qvn_cali_log[0] before it tests, so after a
// rejection the slot names the failing stage (222 offset, 333 matrix, 444
// radius); 555 means accepted.
#include <math.h>

#include "cali/cali.h"
#include "common/log.h"
#include "math/convert.h"
#include "math/math.h"
#include "math/simd.h"

namespace {

constexpr int16_t kUnknownMode = 255;
constexpr uint16_t kModeOval = 0, kModeGyro = 1, kModeBall = 2;

constexpr int16_t kStageLogged = 111;
constexpr int16_t kStageOffset = 222;
constexpr int16_t kStageMatrix = 333;
constexpr int16_t kStageRadius = 444;
constexpr int16_t kStagePassed = 555;

// Verdicts left in mag_cali_check_err.
constexpr int16_t kPassed = 0, kEmpty = 1, kOffsetRange = 2, kMatrixBounds = 3, kRadiusTest = 4;

constexpr int16_t kFullAccuracy = 3;
constexpr float kMilli = 1000.0f;  // matrix elements are logged in thousandths
constexpr int16_t kCapacity = QVN_BATCH_CAPACITY;

bool OutOfBounds(float v, float max, float min) { return v > max || v < min; }

// The six lower-triangle elements in their checking (and logging) order.
bool MatrixOutOfBounds(const float s[9]) {
  return OutOfBounds(s[0], sfi_xx_threshold_max, sfi_xx_threshold_min) ||
         OutOfBounds(s[4], sfi_yy_threshold_max, sfi_yy_threshold_min) ||
         OutOfBounds(s[8], sfi_zz_threshold_max, sfi_zz_threshold_min) ||
         OutOfBounds(s[3], sfi_yx_threshold_max, sfi_yx_threshold_min) ||
         OutOfBounds(s[6], sfi_zx_threshold_max, sfi_zx_threshold_min) ||
         OutOfBounds(s[7], sfi_zy_threshold_max, sfi_zy_threshold_min);
}

// The corrected radius r_i = |S (m_i - h)| of every sample, and their mean
// summed as mean + r_i / n in sample order from +0. Four samples' radii and
// quotients are formed lane-wise, each an independent value computed as the
// scalar code writes it; only the mean is a running sum, and it takes the
// quotients one sample after the other.
float RadiiAndMean(const float *x, const float *y, const float *z, int16_t count,
                   const float hdi[3], const float s[9], float *radii) {
  using qvn::simd::F4;
  using qvn::simd::Splat;
  const float fn = static_cast<float>(count);
  float mean = 0.0f;
  int16_t i = 0;
  for (; i + 4 <= count; i += 4) {
    const F4 dx = qvn::simd::Load(x + i) - Splat(hdi[0]);
    const F4 dy = qvn::simd::Load(y + i) - Splat(hdi[1]);
    const F4 dz = qvn::simd::Load(z + i) - Splat(hdi[2]);
    const F4 cx = (Splat(s[0]) * dx + Splat(s[1]) * dy) + Splat(s[2]) * dz;
    const F4 cy = (Splat(s[3]) * dx + Splat(s[4]) * dy) + Splat(s[5]) * dz;
    const F4 cz = (Splat(s[6]) * dx + Splat(s[7]) * dy) + Splat(s[8]) * dz;
    const F4 r = qvn::simd::Sqrt((cx * cx + cy * cy) + cz * cz);
    qvn::simd::Store(radii + i, r);
    // Divided per term, not once at the end: the rounding is part of the test.
    const F4 q = r / Splat(fn);
    mean = mean + q[0];
    mean = mean + q[1];
    mean = mean + q[2];
    mean = mean + q[3];
  }
  for (; i < count; ++i) {
    const float dx = x[i] - hdi[0];
    const float dy = y[i] - hdi[1];
    const float dz = z[i] - hdi[2];
    const float cx = s[0] * dx + s[1] * dy + s[2] * dz;
    const float cy = s[3] * dx + s[4] * dy + s[5] * dz;
    const float cz = s[6] * dx + s[7] * dy + s[8] * dz;
    radii[i] = qvn_sqrt(cx * cx + cy * cy + cz * cz);
    mean = mean + radii[i] / fn;
  }
  return mean;
}

// Samples whose radius lies further than `wide` from the mean (a NaN radius
// never does), four at a time.
int16_t CountOutliers(const float *radii, int16_t count, float mean, float wide) {
  using qvn::simd::M4;
  M4 counts = {0, 0, 0, 0};  // comparisons are -1 when true
  int16_t i = 0;
  for (; i + 4 <= count; i += 4) {
    const qvn::simd::F4 d = qvn::simd::Load(radii + i) - qvn::simd::Splat(mean);
    counts -= (qvn::simd::Abs(d) > qvn::simd::Splat(wide));
  }
  int32_t outliers = counts[0] + counts[1] + counts[2] + counts[3];
  for (; i < count; ++i) {
    if (fabsf(radii[i] - mean) > wide) ++outliers;
  }
  return static_cast<int16_t>(outliers);
}

int16_t Reject(int16_t verdict) {
  mag_cali_check_err = verdict;
  return 0;
}

}  // namespace

int16_t mag_calibration(const float mag[3], const float gyro[3], uint16_t mode, float sfi[9],
                        float hdi[3], int16_t gyro_present, float interval) {
  (void)gyro_present;  // accepted for the interface, never read
  const bool print = qvn::DebugLogOn();
  if (g_en_mtkScpLog != 0 && print) QVN_LOGD("QVNlib: Start\r\n");
  mag_quad_accuracy = 0;

  int16_t code = kUnknownMode;
  if (mode == kModeOval) {
    code = mag_cali_mag_oval(mag, sfi, hdi, 0);
  } else if (mode == kModeGyro) {
    code = mag_cali_mag_gyr(mag, gyro, hdi, interval);
  } else if (mode == kModeBall) {
    code = mag_cali_mag_ball(mag, hdi);
  }

  // Written for every sample whatever the log switch says: field logs have
  // always relied on these four lines.
  if (print) {
    QVN_LOGD("QVNlib: qvn_debug_log[0], qvn_debug_log[1], qvn_debug_log[2]:%d,%d,%d \r\n",
             qvn_debug_log[0], qvn_debug_log[1], qvn_debug_log[2]);
    QVN_LOGD("QVNlib: qvn_cali_log[0]: qvn_cali_log[1]: qvn_cali_log[2]:%d,%d,%d\r\n",
             qvn_cali_log[0], qvn_cali_log[1], qvn_cali_log[2]);
    QVN_LOGD("QVNlib: qvn_cali_log[3]: qvn_cali_log[4]: qvn_cali_log[5]:%d,%d,%d\r\n",
             qvn_cali_log[3], qvn_cali_log[4], qvn_cali_log[5]);
    QVN_LOGD("QVNlib: qvn_cali_log[6]: qvn_cali_log[7]: qvn_cali_log[8]:%d,%d,%d\r\n",
             qvn_cali_log[6], qvn_cali_log[7], qvn_cali_log[8]);
  }
  return code;
}

int16_t dsc_sfi_hdi_is_valid(const float *x, const float *y, const float *z, uint16_t n,
                             const float hdi[3], const float sfi[9], float radius) {
  if (g_en_mtkScpLog != 0) {
    if (qvn::DebugLogOn()) {
      QVN_LOGD("QVNlib:sfi[0-2]:%f,%f,%f\r\n", sfi[0], sfi[1], sfi[2]);
      QVN_LOGD("QVNlib:sfi[3-5]:%f,%f,%f\r\n", sfi[3], sfi[4], sfi[5]);
      QVN_LOGD("QVNlib:sfi[6-8]:%f,%f,%f\r\n", sfi[6], sfi[7], sfi[8]);
    }
    qvn_cali_log[0] = kStageLogged;
    const int order[6] = {0, 4, 8, 3, 6, 7};
    for (int k = 0; k < 6; ++k) qvn_cali_log[4 + k] = qvn::TruncToI16(kMilli * sfi[order[k]]);
  }
  mag_cali_check_err = kPassed;
  mag_cali_check_ctn = static_cast<int16_t>(mag_cali_check_ctn + 1);
  mag_quad_accuracy = 0;

  // The count arrives unsigned but has always been read as signed 16-bit;
  // no more radii than the batch holds are examined.
  int16_t count = static_cast<int16_t>(n);
  if (count < 1) return Reject(kEmpty);
  if (count > kCapacity) count = kCapacity;

  qvn_cali_log[0] = kStageOffset;
  for (int k = 0; k < 3; ++k) {
    if (fabsf(hdi[k]) > mag_field_range) return Reject(kOffsetRange);
  }

  // A NaN element is neither above nor below a bound and passes; the upper
  // triangle must be exactly zero, so a NaN there fails.
  qvn_cali_log[0] = kStageMatrix;
  if (MatrixOutOfBounds(sfi) || sfi[1] != 0.0f || sfi[2] != 0.0f || sfi[5] != 0.0f) {
    return Reject(kMatrixBounds);
  }

  qvn_cali_log[0] = kStageRadius;
  float radii[kCapacity];
  const float fn = static_cast<float>(count);
  const float mean = RadiiAndMean(x, y, z, count, hdi, sfi, radii);
  const int16_t outliers = CountOutliers(radii, count, mean, mag_radius_wide);

  if (g_en_mtkScpLog != 0) {
    qvn_cali_log[1] = qvn::TruncToI16(radius);
    qvn_cali_log[2] = qvn::TruncToI16(mean);
    qvn_cali_log[3] = outliers;
  }

  if (radius > mag_radius_max) return Reject(kRadiusTest);
  if (mean < mag_radius_min || mean > mag_radius_max) return Reject(kRadiusTest);
  if (radius < mag_radius_min) return Reject(kRadiusTest);
  // Equality passes: 60 outliers of 300 are allowed at a rate of 0.2.
  if (static_cast<float>(outliers) > mag_radius_out_rate * fn) return Reject(kRadiusTest);

  qvn_cali_log[0] = kStagePassed;
  mag_quad_accuracy = kFullAccuracy;
  mag_cali_check_err = kPassed;
  return 1;
}
