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
#include "math/simd.h"

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

// The thirteen sums of the normal equations over the batch.
struct SphereSums {
  float sxx, syy, szz, sxy, sxz, syz, sx, sy, sz, bx, by, bz, br;
};

// Every sum is a float sum in sample order starting from +0, as the fit was
// tuned. Four samples at a time: their per-sample terms are formed lane-wise
// (lane = sample), transposed so that each lane holds one sum, and added to
// those sums one sample after the other, so each sum sees exactly the
// additions of the plain loop in the same order. A batch that is not a
// multiple of four is padded with samples whose terms are +0: a sum that
// starts at +0 can never be -0, and adding +0 to anything else leaves it as
// it is.
SphereSums SumSamples(const float *x, const float *y, const float *z, int16_t count) {
  using qvn::simd::F4;
  F4 squares = {0.0f, 0.0f, 0.0f, 0.0f};  // sxx, syy, szz, sxy
  F4 mixed = squares;                     // sxz, syz, sx, sy
  F4 radial = squares;                    // sz, bx, by, bz
  float br = 0.0f;
  for (int16_t i = 0; i < count; i += 4) {
    F4 vx, vy, vz;
    if (i + 4 <= count) {
      vx = qvn::simd::Load(x + i);
      vy = qvn::simd::Load(y + i);
      vz = qvn::simd::Load(z + i);
    } else {
      float px[4] = {0.0f, 0.0f, 0.0f, 0.0f}, py[4] = {0.0f, 0.0f, 0.0f, 0.0f};
      float pz[4] = {0.0f, 0.0f, 0.0f, 0.0f};
      for (int16_t k = 0; k < count - i; ++k) px[k] = x[i + k], py[k] = y[i + k], pz[k] = z[i + k];
      vx = qvn::simd::Load(px);
      vy = qvn::simd::Load(py);
      vz = qvn::simd::Load(pz);
    }
    const F4 xx = vx * vx, yy = vy * vy, zz = vz * vz;
    const F4 r2 = (xx + yy) + zz;  // x*x + y*y + z*z, left to right
    F4 a0 = xx, a1 = yy, a2 = zz, a3 = vx * vy;
    F4 b0 = vx * vz, b1 = vy * vz, b2 = vx, b3 = vy;
    F4 c0 = vz, c1 = vx * r2, c2 = vy * r2, c3 = vz * r2;
    qvn::simd::Transpose(a0, a1, a2, a3);
    qvn::simd::Transpose(b0, b1, b2, b3);
    qvn::simd::Transpose(c0, c1, c2, c3);
    squares += a0, mixed += b0, radial += c0, br += r2[0];
    squares += a1, mixed += b1, radial += c1, br += r2[1];
    squares += a2, mixed += b2, radial += c2, br += r2[2];
    squares += a3, mixed += b3, radial += c3, br += r2[3];
  }
  return {squares[0], squares[1], squares[2], squares[3], mixed[0], mixed[1], mixed[2],
          mixed[3],   radial[0],  radial[1],  radial[2],  radial[3], br};
}

}  // namespace

int16_t calculate_sphere_offset(const float *x, const float *y, const float *z, int16_t n,
                                float offset[3], float *radius) {
  ZeroLeadingBlock(DM);
  ZeroLeadingBlock(invDM);
  const int16_t count = qvn::BatchCount(n);

  const SphereSums s = SumSamples(x, y, z, count);
  const float sxx = s.sxx, syy = s.syy, szz = s.szz, sxy = s.sxy, sxz = s.sxz, syz = s.syz;
  const float sx = s.sx, sy = s.sy, sz = s.sz, bx = s.bx, by = s.by, bz = s.bz, br = s.br;
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
