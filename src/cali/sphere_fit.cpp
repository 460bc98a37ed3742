// Sphere fit and the ball calibration method (hard-iron offset only).
//
// Every sample m = (x, y, z) is taken to lie on a sphere about the offset o:
//   |m - o|^2 = R^2   <=>   x*p0 + y*p1 + z*p2 - p3 = x^2 + y^2 + z^2
// with p = (2*o, |o|^2 - R^2). The least-squares p solves the 4 x 4 normal
// equations, built from float sums over the batch and inverted in DM/invDM.
// Then o = p[0..2] / 2 and R = sqrt(|o|^2 - p3), all in uT.
//
// The ball method collects samples into the batch, fits once the batch is
// full, validates the centre with an identity soft-iron matrix and always
// halves the batch afterwards, so each attempt is seeded by half the last one.
#include <string.h>

#include "cali/batch.h"
#include "cali/cali.h"
#include "common/log.h"
#include "math/math.h"

namespace {

constexpr int kStride = 9;     // row stride of DM / invDM
constexpr uint8_t kOrder = 4;  // unknowns p0..p3
constexpr float kHalf = 0.5f;

// Stage codes left in qvn_debug_log[2] by the ball method.
constexpr int16_t kStageCollect = 111;
constexpr int16_t kStageFit = 333;
constexpr int16_t kStageValidate = 444;
constexpr int16_t kStageDone = 555;

// Result codes of the ball method.
constexpr int16_t kCalibrated = 0;
constexpr int16_t kCollecting = 1;
constexpr int16_t kFitFailed = 4;
constexpr int16_t kInvalid = 6;

constexpr float kIdentity[9] = {1.0f, 0.0f, 0.0f, 0.0f, 1.0f, 0.0f, 0.0f, 0.0f, 1.0f};

void ZeroLeadingBlock(float *m) {
  for (int r = 0; r < kOrder; ++r) {
    for (int c = 0; c < kOrder; ++c) m[r * kStride + c] = 0.0f;
  }
}

}  // namespace

int16_t calculate_sphere_offset(const float *x, const float *y, const float *z, int16_t n,
                                float offset[3], float *radius) {
  ZeroLeadingBlock(DM);
  ZeroLeadingBlock(invDM);
  const int16_t count = qvn::BatchCount(n);

  // One pass in sample order; every sum is float, as the fit was tuned.
  float sxx = 0.0f, syy = 0.0f, szz = 0.0f, sxy = 0.0f, sxz = 0.0f, syz = 0.0f;
  float sx = 0.0f, sy = 0.0f, sz = 0.0f;
  float bx = 0.0f, by = 0.0f, bz = 0.0f, br = 0.0f;
  for (int16_t i = 0; i < count; ++i) {
    const float xi = x[i], yi = y[i], zi = z[i];
    const float r2 = xi * xi + yi * yi + zi * zi;
    sxx += xi * xi;
    syy += yi * yi;
    szz += zi * zi;
    sxy += xi * yi;
    sxz += xi * zi;
    syz += yi * zi;
    sx += xi;
    sy += yi;
    sz += zi;
    bx += xi * r2;
    by += yi * r2;
    bz += zi * r2;
    br += r2;
  }

  const float normal[kOrder][kOrder] = {{sxx, sxy, sxz, -sx},
                                        {sxy, syy, syz, -sy},
                                        {sxz, syz, szz, -sz},
                                        {-sx, -sy, -sz, static_cast<float>(count)}};
  for (int r = 0; r < kOrder; ++r) memcpy(DM + r * kStride, normal[r], sizeof normal[r]);
  const float b[kOrder] = {bx, by, bz, -br};

  // Empty or degenerate batches (all sums 0, a plane of samples) end here.
  if (inverse_matrix(DM, invDM, kOrder) == 0) return 0;

  float p[kOrder];
  for (int r = 0; r < kOrder; ++r) {
    const float *row = invDM + r * kStride;
    p[r] = row[0] * b[0] + row[1] * b[1] + row[2] * b[2] + row[3] * b[3];
  }
  offset[0] = kHalf * p[0];
  offset[1] = kHalf * p[1];
  offset[2] = kHalf * p[2];

  // R^2 = |o|^2 - p3. The centre is already written when this fails.
  const float r2 = offset[0] * offset[0] + offset[1] * offset[1] + offset[2] * offset[2] - p[3];
  if (r2 <= 0.0f) return 0;
  *radius = qvn_sqrt(r2);
  return 1;
}

int16_t mag_cali_mag_ball(const float mag[3], float hdi[3]) {
  float offset[3] = {0.0f, 0.0f, 0.0f};
  float radius = 0.0f;

  if (g_en_mtkScpLog != 0) {
    // "maggyr" is the gyroscope-aided method's wording, shared as it always was.
    if (qvn::DebugLogOn()) {
      QVN_LOGD("QVNlib: maggyr dsc_size:%d ,dsc_num:%d \r\n", dsc_data_size, dsc_data_num);
    }
    qvn_debug_log[0] = dsc_data_size;
    qvn_debug_log[1] = dsc_data_num;
    qvn_debug_log[2] = kStageCollect;
  }

  if (!qvn::AdmitAndAppend(mag)) return kCollecting;
  if (dsc_data_num < dsc_data_size) return kCollecting;

  qvn_debug_log[2] = kStageFit;
  const int16_t n = qvn::BatchCount(dsc_data_size);
  if (calculate_sphere_offset(dsc_data_mag[0], dsc_data_mag[1], dsc_data_mag[2], n, offset,
                              &radius) == 0) {
    dsc_data_discard();
    return kFitFailed;
  }

  qvn_debug_log[2] = kStageValidate;
  if (dsc_sfi_hdi_is_valid(dsc_data_mag[0], dsc_data_mag[1], dsc_data_mag[2],
                           static_cast<uint16_t>(n), offset, kIdentity, radius) == 0) {
    dsc_data_discard();
    return kInvalid;
  }

  if (g_en_mtkScpLog != 0) {
    if (qvn::DebugLogOn()) QVN_LOGD("QVNlib: mag_gyr cali done\r\n");
    qvn_debug_log[2] = kStageDone;
  }
  // The accuracy was set by the validation; cali_radius is left as it is.
  hdi[0] = offset[0];
  hdi[1] = offset[1];
  hdi[2] = offset[2];
  dsc_data_discard();
  return kCalibrated;
}
