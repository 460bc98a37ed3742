// The fits' batch loops are vectorised across matrix elements; each element
// must still be the float sum, in sample order, of the plain loop. These
// tests build the normal equations with the plain loops of the fits'
// definitions and compare the library's work matrices and results bit for
// bit, on batches of every length (multiples of four and not), with
// ordinary samples and with -0, infinities and NaN mixed in.
#include <math.h>
#include <string.h>

#include <vector>

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

bool SameBits(const float *a, const float *b, int n) { return memcmp(a, b, sizeof(float) * n) == 0; }

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

INSTANTIATE_TEST_SUITE_P(Samples, FitKernels, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool> &i) {
                           return i.param ? "WithOddValues" : "Ordinary";
                         });

}  // namespace
