// The fits' batch loops are vectorised across matrix elements; each element
// must still be the float sum, in sample order, of the plain loop. The plain
// loops of the fits' definitions run beside the library, bit for bit, on
// batches of every length, with -0, infinities and NaN mixed in or not.
#include <math.h>
#include <string.h>

#include <gtest/gtest.h>

#include "cali/cali.h"
#include "math/math.h"
#include "support/synthetic.h"

namespace {

constexpr int kCap = QVN_BATCH_CAPACITY;

struct Batch {
  int n;
  float x[kCap], y[kCap], z[kCap];
};

// Noisy points around a sphere; with `odd` some coordinates are replaced by
// -0, +-infinity or NaN.
Batch MakeBatch(qvn_test::Lcg &rng, int n, bool odd) {
  Batch b;
  b.n = n;
  const float odd_values[4] = {-0.0f, INFINITY, -INFINITY, NAN};
  for (int i = 0; i < n; ++i) {
    b.x[i] = 20.0f + 45.0f * rng.Uniform();
    b.y[i] = -10.0f + 45.0f * rng.Uniform();
    b.z[i] = 5.0f + 45.0f * rng.Uniform();
    if (odd && rng.Next() % 16 == 0) {
      float *axis[3] = {b.x, b.y, b.z};
      axis[rng.Next() % 3][i] = odd_values[rng.Next() % 4];
    }
  }
  return b;
}

using qvn_test::SameBits;

// The 4 x 4 normal matrix of the sphere fit, summed as the design states.
void SphereNormal(const Batch &b, float m[16], float rhs[4]) {
  float sxx = 0, syy = 0, szz = 0, sxy = 0, sxz = 0, syz = 0, sx = 0, sy = 0, sz = 0;
  float bx = 0, by = 0, bz = 0, br = 0;
  for (int i = 0; i < b.n; ++i) {
    const float x = b.x[i], y = b.y[i], z = b.z[i];
    const float r2 = x * x + y * y + z * z;
    sxx += x * x, syy += y * y, szz += z * z, sxy += x * y, sxz += x * z, syz += y * z;
    sx += x, sy += y, sz += z, bx += x * r2, by += y * r2, bz += z * r2, br += r2;
  }
  const float rows[16] = {sxx, sxy, sxz, -sx, sxy, syy, syz, -sy,
                          sxz, syz, szz, -sz, -sx, -sy, -sz, static_cast<float>(b.n)};
  memcpy(m, rows, sizeof rows);
  rhs[0] = bx, rhs[1] = by, rhs[2] = bz, rhs[3] = -br;
}

// The ellipsoid fit written as its definition reads: each sample's outer
// product added into the whole matrix, each sample's dot products added to
// the solution, through the library's own inversion. Returns the fit's code;
// dm and inv receive the work matrices as they are left.
int16_t EllipsoidReference(const Batch &b, float hdi[3], float sfi[9], float *scale, float dm[81],
                           float inv[81]) {
  memset(dm, 0, sizeof(float) * 81);
  memcpy(inv, invDM, sizeof(float) * 81);  // the inversion leaves the rest untouched
  auto terms = [](float x, float y, float z, float v[9]) {
    const float t[9] = {x * x, y * y, z * z, 2.0f * x * y, 2.0f * x * z, 2.0f * y * z,
                        2.0f * x, 2.0f * y, 2.0f * z};
    memcpy(v, t, sizeof t);
  };
  auto outer = [&](const float *v, int k) {
    for (int i = 0; i < k; ++i) {
      for (int j = 0; j < k; ++j) dm[9 * i + j] += v[i] * v[j];
    }
  };
  auto solve = [&](const float *v, int k, float *p) {
    for (int i = 0; i < k; ++i) {
      float dot = 0.0f;
      for (int j = 0; j < k; ++j) dot += inv[9 * i + j] * v[j];
      p[i] += dot;
    }
  };
  float v[9];
  for (int s = 0; s < b.n; ++s) terms(b.x[s], b.y[s], b.z[s], v), outer(v, 9);
  if (inverse_matrix(dm, inv, 9) == 0) return 2;
  float p[9] = {0};
  for (int s = 0; s < b.n; ++s) terms(b.x[s], b.y[s], b.z[s], v), solve(v, 9, p);
  const float q3[9] = {p[0], p[3], p[4], p[3], p[1], p[5], p[4], p[5], p[2]};
  for (int i = 0; i < 3; ++i) memcpy(dm + 9 * i, q3 + 3 * i, sizeof(float) * 3);
  if (inverse_matrix(dm, inv, 3) == 0) return 2;
  float c[3];
  for (int i = 0; i < 3; ++i) {
    c[i] = ((0.0f - inv[9 * i] * p[6]) - inv[9 * i + 1] * p[7]) - inv[9 * i + 2] * p[8];
    hdi[i] = c[i];
  }
  for (int i = 0; i < 6; ++i) {
    for (int j = 0; j < 6; ++j) dm[9 * i + j] = 0.0f;
  }
  for (int s = 0; s < b.n; ++s) terms(b.x[s] - c[0], b.y[s] - c[1], b.z[s] - c[2], v), outer(v, 6);
  if (inverse_matrix(dm, inv, 6) == 0) return 2;
  float q[6] = {0};
  for (int s = 0; s < b.n; ++s) terms(b.x[s] - c[0], b.y[s] - c[1], b.z[s] - c[2], v), solve(v, 6, q);
  sfi[1] = sfi[2] = sfi[5] = 0.0f;
  if (q[2] <= 0.0f) return 3;
  const float r = sqrtf(q[2]);
  sfi[6] = q[4] / r, sfi[7] = q[5] / r, sfi[8] = r;
  const float t = q[1] - q[5] * q[5] / q[2];
  if (t <= 0.0f) return 3;
  sfi[4] = sqrtf(t);
  if (sfi[4] <= 0.0f) return 3;
  sfi[3] = (q[3] - q[4] * q[5] / q[2]) / sfi[4];
  const float u = q[0] - q[4] * q[4] / q[2] - sfi[3] * sfi[3];
  if (u <= 0.0f) return 3;
  sfi[0] = sqrtf(u);
  const float det = sfi[0] * sfi[4] * sfi[8];
  if (det <= 0.0f) return 3;
  *scale = qvn_cbrt(1.0f / det);
  for (int i = 0; i < 9; ++i) sfi[i] = sfi[i] * *scale;
  return 0;
}

class FitKernels : public ::testing::TestWithParam<bool> {};

TEST_P(FitKernels, SphereNormalEquationsAndResult) {
  qvn_test::Lcg rng(GetParam() ? 5 : 4);
  for (int n = 1; n <= kCap; n += (n < 40 ? 1 : 13)) {
    const Batch b = MakeBatch(rng, n, GetParam());
    float m[16], rhs[4];
    SphereNormal(b, m, rhs);
    float offset[3] = {0, 0, 0}, radius = -1.0f;
    const int16_t ok = calculate_sphere_offset(b.x, b.y, b.z, static_cast<int16_t>(n), offset, &radius);
    for (int r = 0; r < 4; ++r) ASSERT_TRUE(SameBits(DM + 9 * r, m + 4 * r, 4)) << "n " << n;
    // The result from the same matrix through the same inversion.
    float in[81] = {0}, inv[81] = {0};
    for (int r = 0; r < 4; ++r) memcpy(in + 9 * r, m + 4 * r, sizeof(float) * 4);
    if (inverse_matrix(in, inv, 4) == 0) {
      EXPECT_EQ(ok, 0);
      continue;
    }
    float p[4];
    for (int r = 0; r < 4; ++r) {
      p[r] = inv[9 * r] * rhs[0] + inv[9 * r + 1] * rhs[1] + inv[9 * r + 2] * rhs[2] +
             inv[9 * r + 3] * rhs[3];
    }
    const float want[3] = {0.5f * p[0], 0.5f * p[1], 0.5f * p[2]};
    EXPECT_TRUE(SameBits(offset, want, 3)) << "n " << n;
    const float r2 = want[0] * want[0] + want[1] * want[1] + want[2] * want[2] - p[3];
    EXPECT_EQ(ok, r2 <= 0.0f ? 0 : 1) << "n " << n;
    if (ok != 0) {
      const float want_radius = sqrtf(r2);
      EXPECT_TRUE(SameBits(&radius, &want_radius, 1)) << "n " << n;
    }
  }
}

TEST_P(FitKernels, EllipsoidWorkMatricesAndResult) {
  qvn_test::Lcg rng(GetParam() ? 9 : 8);
  for (int n = 1; n <= kCap; n += (n < 24 ? 1 : 11)) {
    Batch b = MakeBatch(rng, n, GetParam());
    // Stretch the cloud into an ellipsoid so that the matrix is not trivial.
    for (int i = 0; i < n; ++i) b.y[i] = 0.8f * b.y[i], b.z[i] = 1.15f * b.z[i];
    float want_hdi[3] = {0}, want_sfi[9] = {0}, want_scale = -1.0f, dm[81], inv[81];
    const int16_t want = EllipsoidReference(b, want_hdi, want_sfi, &want_scale, dm, inv);
    float hdi[3] = {0}, sfi[9] = {0}, scale = -1.0f;
    const int16_t got = calculate_magnetic_sfi_hdi(b.x, b.y, b.z, static_cast<uint16_t>(n), hdi,
                                                   sfi, &scale);
    ASSERT_EQ(got, want) << "n " << n;
    EXPECT_TRUE(SameBits(DM, dm, 81)) << "n " << n;
    EXPECT_TRUE(SameBits(invDM, inv, 81)) << "n " << n;
    EXPECT_TRUE(SameBits(hdi, want_hdi, 3)) << "n " << n;
    EXPECT_TRUE(SameBits(sfi, want_sfi, 9)) << "n " << n;
    EXPECT_TRUE(SameBits(&scale, &want_scale, 1)) << "n " << n;
  }
}

// The validation's radii, their mean (mean + r_i / n in sample order) and
// the outlier count, against the plain loop. The radius limits are both set
// to the reference mean, so the batch passes only if the library's mean is
// that very float; the outlier count is read back from qvn_cali_log[3].
TEST_P(FitKernels, ValidationMeanAndOutliersMatchThePlainLoop) {
  qvn_test::Lcg rng(GetParam() ? 13 : 12);
  mag_field_range = 2200.0f;
  for (int n = 1; n <= kCap; n += (n < 24 ? 1 : 7)) {
    const Batch b = MakeBatch(rng, n, GetParam());
    const float hdi[3] = {20.0f + rng.Uniform(), -10.0f + rng.Uniform(), 5.0f + rng.Uniform()};
    const float sfi[9] = {1.0f + 0.05f * rng.Uniform(), 0.0f, 0.0f,
                          0.05f * rng.Uniform(), 1.0f + 0.05f * rng.Uniform(), 0.0f,
                          0.1f * rng.Uniform(), 0.1f * rng.Uniform(), 1.0f + 0.05f * rng.Uniform()};
    const float wide = 1.0f + 4.0f * (rng.Uniform() + 1.0f);
    float radii[kCap];
    float mean = 0.0f;
    for (int i = 0; i < n; ++i) {
      const float dx = b.x[i] - hdi[0], dy = b.y[i] - hdi[1], dz = b.z[i] - hdi[2];
      const float cx = sfi[0] * dx + sfi[1] * dy + sfi[2] * dz;
      const float cy = sfi[3] * dx + sfi[4] * dy + sfi[5] * dz;
      const float cz = sfi[6] * dx + sfi[7] * dy + sfi[8] * dz;
      radii[i] = sqrtf(cx * cx + cy * cy + cz * cz);
      mean = mean + radii[i] / static_cast<float>(n);
    }
    int outliers = 0;
    for (int i = 0; i < n; ++i) outliers += (fabsf(radii[i] - mean) > wide) ? 1 : 0;
    mag_radius_min = mag_radius_max = mean;
    mag_radius_wide = wide;
    mag_radius_out_rate = 1.0f;
    const int16_t ok = dsc_sfi_hdi_is_valid(b.x, b.y, b.z, static_cast<uint16_t>(n), hdi, sfi, mean);
    EXPECT_EQ(ok, isnan(mean) ? 0 : 1) << "n " << n;
    EXPECT_EQ(qvn_cali_log[3], outliers) << "n " << n;
  }
}

INSTANTIATE_TEST_SUITE_P(Samples, FitKernels, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool> &i) {
                           return i.param ? "WithOddValues" : "Ordinary";
                         });

}  // namespace
