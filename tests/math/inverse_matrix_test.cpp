// Gauss-Jordan inversion: pivot exchange only on an exact zero, failures
// leave the output untouched, entries outside the n x n corner are kept, and
// the vectorised row operations give the bits of the plain scalar loops.
#include <math.h>
#include <string.h>

#include <utility>

#include <gtest/gtest.h>

#include "math/math.h"
#include "support/synthetic.h"

namespace {

// The inversion as defined: exchange only on an exact zero pivot, eliminate
// every other row over all 2n columns, then divide each row by its diagonal.
int16_t Reference(const float in[81], float out[81], int n) {
  float w[9][18];
  for (int i = 0; i < n; ++i) {
    for (int c = 0; c < n; ++c) w[i][c] = in[9 * i + c], w[i][n + c] = (c == i) ? 1.0f : 0.0f;
  }
  for (int k = 0; k < n; ++k) {
    if (w[k][k] == 0.0f) {
      int r = k + 1;
      while (r < n && w[r][k] == 0.0f) ++r;
      if (r == n) return 0;
      for (int j = 0; j < 2 * n; ++j) std::swap(w[k][j], w[r][j]);
    }
    for (int i = 0; i < n; ++i) {
      const float f = w[i][k] / w[k][k];
      for (int j = 0; i != k && j < 2 * n; ++j) w[i][j] = w[i][j] - f * w[k][j];
    }
  }
  for (int i = 0; i < n; ++i) {
    const float d = w[i][i];
    if (d == 0.0f) return 0;
    for (int c = 0; c < n; ++c) out[9 * i + c] = w[i][n + c] / d;
  }
  return 1;
}

// Rows of an n x n matrix into 9 x 9 storage (the rest zero).
void Load(float m[81], int n, const std::initializer_list<float> &rows) {
  memset(m, 0, 81 * sizeof(float));
  int k = 0;
  for (float v : rows) m[9 * (k / n) + k % n] = v, ++k;
}

TEST(InverseMatrix, FailuresLeaveTheOutputUntouched) {
  float ones[81], singular[81], zero[81] = {0};
  for (float &v : ones) v = 1.0f;
  Load(singular, 2, {1, 2, 2, 4});
  const struct {
    const float *in;
    uint8_t n;
  } cases[] = {{ones, 0}, {ones, 1}, {ones, 10}, {ones, 255}, {singular, 2}, {zero, 4}};
  for (const auto &c : cases) {
    float out[81];
    for (float &v : out) v = 7.0f;
    EXPECT_EQ(inverse_matrix(c.in, out, c.n), 0) << int(c.n);
    for (float v : out) ASSERT_EQ(v, 7.0f) << int(c.n);
  }
}

// Bit for bit (result and every output entry) against the plain loops.
int16_t ExpectSameAsReference(const float in[81], int n) {
  float got[81], want[81];
  for (int i = 0; i < 81; ++i) got[i] = want[i] = -123.0f;
  const int16_t r = inverse_matrix(in, got, static_cast<uint8_t>(n));
  EXPECT_EQ(r, Reference(in, want, n)) << "n " << n;
  EXPECT_EQ(memcmp(got, want, sizeof got), 0) << "n " << n;
  return r;
}

// Random orders with diagonal dominance, exact zeros (exchanges, singular
// columns) and odd values.
TEST(InverseMatrix, MatchesPlainGaussJordan) {
  qvn_test::Lcg rng(21);
  const float odd[5] = {0.0f, -0.0f, INFINITY, NAN, 1e-30f};
  for (int round = 0; round < 4000 && !HasFailure(); ++round) {
    const int n = 2 + static_cast<int>(rng.Next() % 8);
    float in[81];
    for (float &e : in) e = 10.0f * rng.Uniform();
    if (round % 3 == 0) {
      for (int i = 0; i < n; ++i) in[10 * i] += 40.0f;
    }
    if (round % 4 == 1) {
      for (int k = 0; k < 1 + round % 5; ++k) in[9 * (rng.Next() % n) + rng.Next() % n] = 0.0f;
    }
    if (round % 7 == 2) in[9 * (rng.Next() % n) + rng.Next() % n] = odd[rng.Next() % 5];
    ExpectSameAsReference(in, n);
  }
}

// The pivot rule by known answers: an exact zero is exchanged with the first
// non-zero row below; a 1e-30 pivot is not, so the exact inverse
// [[-1, 1], [1, 0]] is lost; NaN pivots are not exactly zero, so the
// elimination runs through. Entries outside the n x n corner are compared too.
TEST(InverseMatrix, PivotRule) {
  float swap[81], tiny[81], nan_in[81], out[81];
  Load(swap, 3, {0, 1, 0, 1, 0, 0, 0, 0, 2});
  Load(tiny, 2, {1e-30f, 1, 1, 1});
  for (float &v : nan_in) v = NAN;
  EXPECT_EQ(ExpectSameAsReference(swap, 3), 1);
  EXPECT_EQ(ExpectSameAsReference(tiny, 2), 1);
  EXPECT_EQ(ExpectSameAsReference(nan_in, 9), 1);
  inverse_matrix(swap, out, 3);
  const float want[9] = {0, 1, 0, 1, 0, 0, 0, 0, 0.5f};
  for (int i = 0; i < 9; ++i) EXPECT_EQ(out[9 * (i / 3) + i % 3], want[i]) << i;
  inverse_matrix(tiny, out, 2);
  EXPECT_NE(out[0], -1.0f);
}

TEST(InverseMatrix, InverseTimesMatrixIsIdentityForEveryOrder) {
  qvn_test::Lcg rng(12345u);
  for (uint8_t n = 2; n <= 9; ++n) {
    float in[81] = {0}, keep[81], out[81] = {0};
    for (int i = 0; i < n; ++i) {
      for (int j = 0; j < n; ++j) in[9 * i + j] = rng.Uniform();
      in[9 * i + i] += 4.0f;  // diagonally dominant: well conditioned
    }
    memcpy(keep, in, sizeof keep);
    ASSERT_EQ(inverse_matrix(in, out, n), 1) << int(n);
    EXPECT_EQ(memcmp(keep, in, sizeof keep), 0) << "input modified";
    for (int i = 0; i < n; ++i) {
      for (int j = 0; j < n; ++j) {
        float s = 0.0f;
        for (int k = 0; k < n; ++k) s += in[9 * i + k] * out[9 * k + j];
        EXPECT_NEAR(s, i == j ? 1.0f : 0.0f, 1e-5f) << int(n) << " " << i << "," << j;
      }
    }
  }
}

}  // namespace
