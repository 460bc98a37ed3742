// Ellipsoid fit (hard and soft iron) and the "oval" calibration method.
//
// A magnetometer inside a device with hard- and soft-iron distortion sees the
// Earth's field on an ellipsoid instead of a sphere:
//   p0 x^2 + p1 y^2 + p2 z^2 + 2 p3 xy + 2 p4 xz + 2 p5 yz
//                                  + 2 p6 x + 2 p7 y + 2 p8 z = 1.
// Stage 1 solves the 9x9 normal equations for p, stage 2 takes the centre
// c = -Q^-1 (p6, p7, p8) with Q the symmetric quadric block, stage 3 refits
// the pure quadric q about c (6x6) and factors M = S^T S with S lower
// triangular. s = cbrt(1 / det S) is the radius (uT) onto which S maps the
// ellipsoid; S is returned scaled by s so that det S = 1.
//
// The oval method fits a sphere first (the coarse centre), re-centres the
// batch on it and fits the ellipsoid to the re-centred cloud; below 11 Hz the
// batch is too sparse for nine unknowns and the sphere alone is the result.
// All arithmetic is float32 in the order written; DM/invDM are the shared
// 9x9 work matrices (row stride 9).
#include <math.h>

#include "cali/batch.h"
#include "cali/cali.h"
#include "common/log.h"
#include "math/math.h"
#include "cali/normal_equations.h"

namespace {

using qvn::normal::OuterSums;
using qvn::normal::QuadricTerms;
using qvn::normal::ShapeTerms;
using qvn::normal::Solution;

constexpr int kStride = 9;          // row stride of DM / invDM
constexpr int kQuadricTerms = 9;    // unknowns of the general ellipsoid
constexpr int kShapeTerms = 6;      // unknowns of the centred quadric
constexpr int kCentreOrder = 3;     // the quadric block Q

// calculate_magnetic_sfi_hdi results.
constexpr int16_t kFitOk = 0;
constexpr int16_t kFitEmpty = 1;
constexpr int16_t kFitSingular = 2;
constexpr int16_t kFitNotPositive = 3;

// mag_cali_mag_oval results.
constexpr int16_t kOvalDone = 0;
constexpr int16_t kOvalCollecting = 1;
constexpr int16_t kOvalRejected = 2;
constexpr int16_t kOvalSphereFailed = 4;
constexpr int16_t kOvalEllipsoidFailed = 5;
constexpr int16_t kOvalInvalid = 6;

// Stage codes left in qvn_debug_log[2] for the dispatcher's summary line.
constexpr int16_t kStageStart = 111;
constexpr int16_t kStageSphereFitted = 222;
constexpr int16_t kStageSphereAccepted = 333;
constexpr int16_t kStageValidating = 444;
constexpr int16_t kStageDone = 555;

constexpr int16_t kMinEllipsoidOdr = 11;  // Hz; below it only the sphere is fitted
constexpr int16_t kFullAccuracy = 3;

}  // namespace

int16_t calculate_magnetic_sfi_hdi(const float *x, const float *y, const float *z, uint16_t n,
                                   float hdi[3], float sfi[9], float *scale) {
  // The count arrives unsigned but is judged as the signed batch count.
  if (static_cast<int16_t>(n) < 1) return kFitEmpty;
  const int count = qvn::BatchCount(static_cast<int16_t>(n));
  for (float &e : DM) e = 0.0f;

  // Stage 1: general ellipsoid, least squares of v^T p = 1.
  {
    OuterSums<kQuadricTerms> sums;
    for (int s = 0; s < count; ++s) sums.Add(QuadricTerms(x[s], y[s], z[s]));
    sums.Store();
  }
  if (inverse_matrix(DM, invDM, kQuadricTerms) == 0) return kFitSingular;
  float p[kQuadricTerms];
  {
    Solution<kQuadricTerms> solution;
    for (int s = 0; s < count; ++s) solution.Add(QuadricTerms(x[s], y[s], z[s]));
    solution.Result(p);
  }

  // Stage 2: centre = -Q^-1 (p6, p7, p8), subtracted term by term from zero.
  const float q_block[kCentreOrder][kCentreOrder] = {
      {p[0], p[3], p[4]}, {p[3], p[1], p[5]}, {p[4], p[5], p[2]}};
  for (int i = 0; i < kCentreOrder; ++i) {
    for (int j = 0; j < kCentreOrder; ++j) DM[kStride * i + j] = q_block[i][j];
  }
  if (inverse_matrix(DM, invDM, kCentreOrder) == 0) return kFitSingular;
  float centre[3];
  for (int i = 0; i < kCentreOrder; ++i) {
    const float *row = invDM + kStride * i;
    centre[i] = ((0.0f - row[0] * p[6]) - row[1] * p[7]) - row[2] * p[8];
    hdi[i] = centre[i];
  }

  // Stage 3: pure quadric about the centre, in the leading 6 x 6 block (the
  // rest of DM keeps the first stage's sums).
  {
    OuterSums<kShapeTerms> sums;
    for (int s = 0; s < count; ++s) {
      sums.Add(ShapeTerms(x[s] - centre[0], y[s] - centre[1], z[s] - centre[2]));
    }
    sums.Store();
  }
  if (inverse_matrix(DM, invDM, kShapeTerms) == 0) return kFitSingular;
  float q[kShapeTerms];
  {
    Solution<kShapeTerms> solution;
    for (int s = 0; s < count; ++s) {
      solution.Add(ShapeTerms(x[s] - centre[0], y[s] - centre[1], z[s] - centre[2]));
    }
    solution.Result(q);
  }

  // Factor M = S^T S from the bottom-right corner up. Each "<= 0" test is
  // written so that only a real non-positive pivot fails; a NaN runs through.
  sfi[1] = 0.0f;
  sfi[2] = 0.0f;
  sfi[5] = 0.0f;
  if (q[2] <= 0.0f) return kFitNotPositive;
  const float root_q2 = qvn_sqrt(q[2]);
  sfi[6] = q[4] / root_q2;
  sfi[7] = q[5] / root_q2;
  sfi[8] = root_q2;
  const float t = q[1] - q[5] * q[5] / q[2];
  if (t <= 0.0f) return kFitNotPositive;
  sfi[4] = qvn_sqrt(t);
  if (sfi[4] <= 0.0f) return kFitNotPositive;
  sfi[3] = (q[3] - q[4] * q[5] / q[2]) / sfi[4];
  const float u = q[0] - q[4] * q[4] / q[2] - sfi[3] * sfi[3];
  if (u <= 0.0f) return kFitNotPositive;
  sfi[0] = qvn_sqrt(u);
  const float det = sfi[0] * sfi[4] * sfi[8];
  if (det <= 0.0f) return kFitNotPositive;

  // Normalise to unit determinant; the factor is the mapped sphere's radius.
  const float s = qvn_cbrt(1.0f / det);
  *scale = s;
  for (int i = 0; i < 9; ++i) sfi[i] = sfi[i] * s;
  return kFitOk;
}

int16_t mag_cali_mag_oval(const float mag[3], float sfi[9], float hdi[3], uint16_t use_given_offset) {
  if (g_en_mtkScpLog != 0) {
    if (qvn::DebugLogOn()) {
      QVN_LOGD("QVNlib: oval dsc_size:%d ,dsc_num:%d \r\n", dsc_data_size, dsc_data_num);
    }
    qvn_debug_log[0] = dsc_data_size;
    qvn_debug_log[1] = dsc_data_num;
    qvn_debug_log[2] = kStageStart;
  }
  if (!qvn::AdmitAndAppend(mag)) return kOvalRejected;
  if (dsc_data_num < dsc_data_size) return kOvalCollecting;

  const int count = qvn::BatchCount(dsc_data_size);
  float centre[3] = {hdi[0], hdi[1], hdi[2]};
  float sphere_radius = 0.0f;
  if (use_given_offset != 1) {
    float fitted[3] = {0.0f, 0.0f, 0.0f};
    if (calculate_sphere_offset(dsc_data_mag[0], dsc_data_mag[1], dsc_data_mag[2],
                                static_cast<int16_t>(count), fitted, &sphere_radius) == 0) {
      dsc_data_discard();
      return kOvalSphereFailed;
    }
    qvn_debug_log[2] = kStageSphereFitted;
    if (sphere_radius > mag_radius_max || sphere_radius < mag_radius_min) {
      dsc_data_discard();
      return kOvalSphereFailed;
    }
    qvn_debug_log[2] = kStageSphereAccepted;
    // Published at once: a later failure of the ellipsoid stage leaves the
    // caller with this coarse centre.
    for (int i = 0; i < 3; ++i) {
      centre[i] = fitted[i];
      hdi[i] = fitted[i];
    }
  }

  if (qvn_algo_odr < kMinEllipsoidOdr) {
    // With a caller-given centre no radius was fitted; the last one stands.
    if (use_given_offset != 1) cali_radius = sphere_radius;
    dsc_data_discard();
    mag_quad_accuracy = kFullAccuracy;
    return kOvalDone;
  }

  for (int i = 0; i < count; ++i) {
    mag_data_tmp[0][i] = dsc_data_mag[0][i] - centre[0];
    mag_data_tmp[1][i] = dsc_data_mag[1][i] - centre[1];
    mag_data_tmp[2][i] = dsc_data_mag[2][i] - centre[2];
  }
  float shape[9] = {0.0f};
  float residual[3] = {0.0f, 0.0f, 0.0f};
  float scale = 0.0f;
  if (calculate_magnetic_sfi_hdi(mag_data_tmp[0], mag_data_tmp[1], mag_data_tmp[2],
                                 static_cast<uint16_t>(count), residual, shape, &scale) != 0) {
    dsc_data_discard();
    return kOvalEllipsoidFailed;
  }

  const float offset[3] = {residual[0] + centre[0], residual[1] + centre[1], residual[2] + centre[2]};
  qvn_debug_log[2] = kStageValidating;
  if (dsc_sfi_hdi_is_valid(dsc_data_mag[0], dsc_data_mag[1], dsc_data_mag[2],
                           static_cast<uint16_t>(count), offset, shape, scale) == 0) {
    dsc_data_discard();
    return kOvalInvalid;
  }
  if (g_en_mtkScpLog != 0) {
    // The wording is shared by all three methods.
    if (qvn::DebugLogOn()) QVN_LOGD("QVNlib: mag_gyr cali done\r\n");
    qvn_debug_log[2] = kStageDone;
  }
  for (int i = 0; i < 3; ++i) hdi[i] = offset[i];
  for (int i = 0; i < 9; ++i) sfi[i] = shape[i];
  cali_radius = scale;
  dsc_data_discard();
  mag_quad_accuracy = kFullAccuracy;
  return kOvalDone;
}
