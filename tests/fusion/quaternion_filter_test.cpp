// Quaternion helpers and the attitude filter step.
#include <math.h>

#include <gtest/gtest.h>

#include "fusion/fusion.h"

namespace {

TEST(QuaternionHelpers, HamiltonRulesAndConjugate) {
  // i j = k, j i = -k, i i = -1, and a general product.
  const float cases[][3][4] = {{{0, 1, 0, 0}, {0, 0, 1, 0}, {0, 0, 0, 1}},
                               {{0, 0, 1, 0}, {0, 1, 0, 0}, {0, 0, 0, -1}},
                               {{0, 1, 0, 0}, {0, 1, 0, 0}, {-1, 0, 0, 0}},
                               {{1, 2, 3, 4}, {5, 6, 7, 8}, {-60, 12, 30, 24}}};
  for (const auto &c : cases) {
    float a[4] = {c[0][0], c[0][1], c[0][2], c[0][3]}, out[4];
    EXPECT_EQ(q_multf(a, c[1], out), a);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(out[i], c[2][i]);
  }
  // The conjugate, not the inverse: (2, 0, 0, 0) stays (2, 0, 0, 0).
  float two[4] = {2, 0, 0, 0}, g[4] = {0.5f, 1, -2, 3}, out[4];
  EXPECT_EQ(q_invertf(two, out), two);
  EXPECT_EQ(out[0], 2.0f);
  q_invertf(g, out);
  EXPECT_TRUE(out[0] == 0.5f && out[1] == -1.0f && out[2] == 2.0f && out[3] == -3.0f);
  float zero[4] = {0, 0, 0, 0};
  q_normalizef(zero);
  EXPECT_EQ(zero[0], 1.0f);
}

TEST(RunSensorFusion, CorrectionsAboutZOnlyFromTheEastComponent) {
  const float acc[3] = {0, 0, 9.8f}, still[3] = {0, 0, 0};
  float q[4] = {1, 0, 0, 0};
  const float north[3] = {0, 30, -40};
  run_sensor_fusion(acc, north, still, q);
  EXPECT_TRUE(q[0] == 1.0f && q[1] == 0.0f && q[2] == 0.0f && q[3] == 0.0f);

  const float east[3] = {10, 30, -40};
  run_sensor_fusion(acc, east, still, q);
  const float z = 0.003f * (10.0f / sqrtf(2600.0f));  // before normalisation
  EXPECT_FLOAT_EQ(q[0], 1.0f / sqrtf(1.0f + z * z));
  EXPECT_FLOAT_EQ(q[3], z / sqrtf(1.0f + z * z));
  EXPECT_EQ(q[1], 0.0f);
}

TEST(RunSensorFusion, KeepsNonNegativeScalarAndLevels) {
  // Zero vectors correct nothing; a large turn would make w negative.
  const float zero[3] = {0, 0, 0}, spin[3] = {0, 0, 4};
  float q[4] = {0.01f, 0, 0, 1};
  run_sensor_fusion(zero, zero, spin, q);  // w = 0.01 - 2, z = 1 + 0.02
  const float n = sqrtf(1.99f * 1.99f + 1.02f * 1.02f);
  EXPECT_NEAR(q[0], 1.99f / n, 1e-6);
  EXPECT_NEAR(q[3], -1.02f / n, 1e-6);

  // Tilted 0.3 rad about x while the accelerometer reads level.
  float t[4] = {cosf(0.15f), sinf(0.15f), 0, 0};
  const float level[3] = {0, 0, 9.8f};
  for (int i = 0; i < 1000; ++i) run_sensor_fusion(level, zero, zero, t);
  EXPECT_NEAR(t[1], 0.0f, 1e-4);
}

}  // namespace
