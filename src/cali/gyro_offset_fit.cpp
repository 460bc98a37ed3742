// Gyroscope-aided hard-iron offset.
//
// A device turning at rate w (rad/s) sees a constant field B in its own frame
// change as dm/dt = -w x (m - b), where b is the hard-iron offset (uT). So
//   e = dm/dt + w x m = w x b,   and   w x e = [w]x^2 b,
// with [w]x^2 = w w^T - |w|^2 I. Summing over the batch,
//   b = (sum [w_i]x^2)^-1 . sum (w_i x e_i),
// where e_i uses the backward difference (m_i - m_(i-1)) / dt_i. It needs only
// rotation, not coverage of all orientations, and yields no soft-iron matrix.
// The result is accepted when the samples' distances from b have a plausible
// mean (the field strength) and few outliers.
#include <math.h>

#include "cali/batch.h"
#include "cali/cali.h"
#include "common/log.h"
#include "math/convert.h"
#include "math/math.h"

namespace {

constexpr int kBatchCap = QVN_BATCH_CAPACITY;
constexpr int kStride = 9;  // row stride of DM / invDM
constexpr int kOrder = 3;

// mag_cali_mag_gyr results.
constexpr int16_t kGyrDone = 0;
constexpr int16_t kGyrCollecting = 1;
constexpr int16_t kGyrNoRotation = 2;
constexpr int16_t kGyrFailed = 3;

// Stage codes in qvn_debug_log[2] / qvn_cali_log[0].
constexpr int16_t kStageStart = 111;
constexpr int16_t kStageLogged = 222;
constexpr int16_t kStageRange = 333;
constexpr int16_t kStageFitted = 444;
constexpr int16_t kStageDone = 555;


}  // namespace

int16_t calculate_hdi_by_gyroscope(const float *mx, const float *my, const float *mz,
                                   const float *gx, const float *gy, const float *gz,
                                   const float *dt, int16_t n, float hdi[3]) {
  const int count = qvn::BatchCount(n);
  for (int i = 0; i < kOrder; ++i) {
    for (int j = 0; j < kOrder; ++j) DM[kStride * i + j] = 0.0f;
  }
  // Sum of [w]x^2 over every sample; each element is formed on its own and
  // then added, which fixes the rounding of the diagonal.
  for (int i = 0; i < count; ++i) {
    const float wx = gx[i], wy = gy[i], wz = gz[i];
    DM[0] += -wy * wy - wz * wz;
    DM[1] += wx * wy;
    DM[2] += wx * wz;
    DM[kStride + 0] += wx * wy;
    DM[kStride + 1] += -wx * wx - wz * wz;
    DM[kStride + 2] += wy * wz;
    DM[2 * kStride + 0] += wx * wz;
    DM[2 * kStride + 1] += wy * wz;
    DM[2 * kStride + 2] += -wx * wx - wy * wy;
  }
  if (inverse_matrix(DM, invDM, kOrder) == 0) return 0;

  // Right-hand side over the n - 1 consecutive pairs only (the matrix above
  // covers all n samples; the asymmetry is long-standing and kept). The first
  // sample's interval is never read.
  float r[3] = {0.0f, 0.0f, 0.0f};
  for (int i = 1; i < count; ++i) {
    const float h = dt[i];
    if (h <= 0.0f) return 0;
    const float wx = gx[i], wy = gy[i], wz = gz[i];
    const float ex = (mx[i] - mx[i - 1]) / h + wy * mz[i] - wz * my[i];
    const float ey = (my[i] - my[i - 1]) / h + wz * mx[i] - wx * mz[i];
    const float ez = (mz[i] - mz[i - 1]) / h + wx * my[i] - wy * mx[i];
    r[0] += wy * ez - wz * ey;
    r[1] += wz * ex - wx * ez;
    r[2] += wx * ey - wy * ex;
  }
  for (int i = 0; i < kOrder; ++i) {
    const float *row = invDM + kStride * i;
    hdi[i] = row[0] * r[0] + row[1] * r[1] + row[2] * r[2];
  }
  return 1;
}

int16_t fss_hdi_is_valid(const float *x, const float *y, const float *z, uint16_t n,
                         const float hdi[3], float *radius) {
  qvn_cali_log[0] = kStageStart;
  if (static_cast<int16_t>(n) < 1) return 0;
  const int count = qvn::BatchCount(static_cast<int16_t>(n));
  const bool logging = g_en_mtkScpLog != 0;
  const bool print = logging && qvn::DebugLogOn();
  if (logging) {
    if (print) {
      QVN_LOGD("QVNlib: hdi[0-2]:%f,%f,%f\r\n", hdi[0], hdi[1], hdi[2]);
    }
    qvn_cali_log[0] = kStageLogged;
    for (int k = 0; k < 3; ++k) qvn_cali_log[1 + k] = qvn::TruncToI16(hdi[k]);
  }
  for (int k = 0; k < 3; ++k) {
    if (fabsf(hdi[k]) > mag_field_range) return 0;
  }

  qvn_cali_log[0] = kStageRange;
  // Mean distance accumulated as mean + r_i / n, as the thresholds expect.
  const float fn = static_cast<float>(count);
  float dist[kBatchCap];
  float mean = 0.0f;
  for (int i = 0; i < count; ++i) {
    const float dx = x[i] - hdi[0];
    const float dy = y[i] - hdi[1];
    const float dz = z[i] - hdi[2];
    dist[i] = qvn_sqrt(dx * dx + dy * dy + dz * dz);
    mean = mean + dist[i] / fn;
  }
  int16_t outliers = 0;
  for (int i = 0; i < count; ++i) {
    if (fabsf(dist[i] - mean) > mag_radius_wide) ++outliers;
  }
  const float allowed = mag_radius_out_rate * fn;
  if (logging) {
    // Prints the tolerance, not the mean; long-standing wording.
    if (print) {
      QVN_LOGD("QVNlib: radius:%f,count:%d,num:%d\r\n", mag_radius_wide, outliers, count);
    }
    qvn_cali_log[4] = qvn::TruncToI16(mag_radius_wide);
    qvn_cali_log[5] = outliers;
    qvn_cali_log[6] = qvn::TruncToI16(allowed);
  }
  // Each test must hold, so a NaN mean rejects.
  if (!(mean <= mag_radius_max)) return 0;
  if (!(mean >= mag_radius_min)) return 0;
  if (!(allowed >= static_cast<float>(outliers))) return 0;
  qvn_cali_log[0] = kStageDone;
  *radius = mean;
  return 1;
}

int16_t mag_cali_mag_gyr(const float mag[3], const float gyro[3], float hdi[3], float interval) {
  float radius = cali_radius;
  const int16_t k = dsc_data_num;
  // Every sample is kept: the fit needs consecutive pairs, not spacing.
  const int slot = qvn::BatchWriteSlot(k);
  for (int a = 0; a < 3; ++a) {
    dsc_data_mag[a][slot] = mag[a];
    ctn_data_gyr[a][slot] = gyro[a];
  }
  ctn_data_gdt[slot] = interval;
  const bool logging = g_en_mtkScpLog != 0;
  const bool print = logging && qvn::DebugLogOn();
  if (logging) {
    if (print) QVN_LOGD("QVNlib: maggyr dsc_size:%d ,dsc_num:%d \r\n", dsc_data_size, k);
    qvn_debug_log[0] = dsc_data_size;
    qvn_debug_log[1] = k;
    qvn_debug_log[2] = kStageStart;
  }
  dsc_data_num = static_cast<int16_t>(k + 1);
  if (dsc_data_num < dsc_data_size) return kGyrCollecting;

  const int16_t level = gyro_is_effective();
  if (logging) {
    if (print) QVN_LOGD("QVNlib: level :%d \r\n", level);
    qvn_debug_log[3] = level;
  }
  if (level != 0) {
    const int count = qvn::BatchCount(dsc_data_size);
    float offset[3] = {0.0f, 0.0f, 0.0f};
    qvn_debug_log[2] = kStageRange;
    if (calculate_hdi_by_gyroscope(dsc_data_mag[0], dsc_data_mag[1], dsc_data_mag[2],
                                   ctn_data_gyr[0], ctn_data_gyr[1], ctn_data_gyr[2],
                                   ctn_data_gdt, static_cast<int16_t>(count), offset) != 0) {
      qvn_debug_log[2] = kStageFitted;
      if (fss_hdi_is_valid(dsc_data_mag[0], dsc_data_mag[1], dsc_data_mag[2],
                           static_cast<uint16_t>(count), offset, &radius) != 0) {
        if (logging) {
          if (print) QVN_LOGD("QVNlib: mag_gyr cali done\r\n");
          qvn_debug_log[2] = kStageDone;
        }
        for (int a = 0; a < 3; ++a) hdi[a] = offset[a];
        // A success drops the whole batch; the next one starts afresh.
        dsc_data_num = 0;
        mag_quad_accuracy = level;
        cali_radius = radius;
        return kGyrDone;
      }
    }
  }
  // Failures trim the oldest samples (and any still ones after them) rather
  // than halving, so the pairs that remain stay consecutive.
  ctn_data_discard(dsc_data_discard_size);
  return level != 0 ? kGyrFailed : kGyrNoRotation;
}
