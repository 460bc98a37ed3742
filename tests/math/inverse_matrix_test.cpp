// Gauss-Jordan inversion: pivot exchange only on an exact zero, failures
// leave the output untouched, entries outside the n x n corner are kept.
#include <math.h>
#include <string.h>

#include <gtest/gtest.h>

#include "math/math.h"
#include "support/synthetic.h"

namespace {

void Fill(float m[81], float v) {
  for (int i = 0; i < 81; ++i) m[i] = v;
}

TEST(InverseMatrix, OrderOutsideTwoToNineFailsWithOutputUntouched) {
  float in[81];
  float out[81];
  Fill(in, 1.0f);
  for (uint8_t n : {uint8_t{0}, uint8_t{1}, uint8_t{10}, uint8_t{255}}) {
    Fill(out, 7.0f);
    EXPECT_EQ(inverse_matrix(in, out, n), 0);
    for (float v : out) EXPECT_EQ(v, 7.0f);
  }
}

TEST(InverseMatrix, ZeroPivotExchangesWithFirstNonZeroRowBelow) {
  float in[81] = {0};
  const float rows[3][3] = {{0, 1, 0}, {1, 0, 0}, {0, 0, 2}};
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) in[9 * i + j] = rows[i][j];
  float out[81];
  Fill(out, -5.0f);
  ASSERT_EQ(inverse_matrix(in, out, 3), 1);
  const float want[3][3] = {{0, 1, 0}, {1, 0, 0}, {0, 0, 0.5f}};
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) EXPECT_EQ(out[9 * i + j], want[i][j]);
  // Outside the corner the previous contents stay.
  EXPECT_EQ(out[3], -5.0f);
  EXPECT_EQ(out[9 * 3], -5.0f);
  EXPECT_EQ(out[80], -5.0f);
}

TEST(InverseMatrix, SingularMatricesFail) {
  float in[81] = {0};
  in[0] = 1;
  in[1] = 2;
  in[9] = 2;
  in[10] = 4;
  float out[81];
  Fill(out, 3.0f);
  EXPECT_EQ(inverse_matrix(in, out, 2), 0);
  for (float v : out) EXPECT_EQ(v, 3.0f);
  float zero[81] = {0};
  EXPECT_EQ(inverse_matrix(zero, out, 4), 0);
}

TEST(InverseMatrix, TinyLeadingPivotIsNotExchanged) {
  float in[81] = {0};
  in[0] = 1e-30f;
  in[1] = 1.0f;
  in[9] = 1.0f;
  in[10] = 1.0f;
  float out[81] = {0};
  ASSERT_EQ(inverse_matrix(in, out, 2), 1);
  // The known answer of Gauss-Jordan without a swap, written out in float:
  // W = [[a, 1 | 1, 0], [1, 1 | 0, 1]], a = 1e-30.
  volatile float a = 1e-30f;
  float r0[4] = {a, 1.0f, 1.0f, 0.0f};
  float r1[4] = {1.0f, 1.0f, 0.0f, 1.0f};
  float f = r1[0] / r0[0];
  for (float &v : r1) v = v - f * r0[&v - r1];
  f = r0[1] / r1[1];
  for (float &v : r0) v = v - f * r1[&v - r0];
  const float d0 = r0[0], d1 = r1[1];
  for (float &v : r0) v = v / d0;
  for (float &v : r1) v = v / d1;
  EXPECT_EQ(qvn_test::Bits(out[0]), qvn_test::Bits(r0[2]));
  EXPECT_EQ(qvn_test::Bits(out[1]), qvn_test::Bits(r0[3]));
  EXPECT_EQ(qvn_test::Bits(out[9]), qvn_test::Bits(r1[2]));
  EXPECT_EQ(qvn_test::Bits(out[10]), qvn_test::Bits(r1[3]));
  // A pivot search would have swapped and found the exact inverse
  // [[-1, 1], [1, 0]]; the design's elimination loses the 1 in row 0.
  EXPECT_NE(out[0], -1.0f);
}

TEST(InverseMatrix, InverseTimesMatrixIsIdentityForEveryOrder) {
  qvn_test::Lcg rng(12345u);
  for (uint8_t n = 2; n <= 9; ++n) {
    float in[81] = {0};
    for (int i = 0; i < n; ++i) {
      for (int j = 0; j < n; ++j) in[9 * i + j] = rng.Uniform();
      in[9 * i + i] += 4.0f;  // diagonally dominant: well conditioned
    }
    float keep[81];
    memcpy(keep, in, sizeof keep);
    float out[81] = {0};
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

TEST(InverseMatrix, NanInputDoesNotCrash) {
  float in[81];
  Fill(in, NAN);
  float out[81] = {0};
  // NaN pivots are not exactly zero, so the elimination runs through.
  EXPECT_EQ(inverse_matrix(in, out, 9), 1);
}

}  // namespace
