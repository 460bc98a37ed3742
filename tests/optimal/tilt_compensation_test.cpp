// Trap compensation toward the 45-degree marks and the field rotations.
#include <math.h>

#include <gtest/gtest.h>

#include "optimal/optimal.h"
#include "support/synthetic.h"

namespace {

TEST(TrapCompensation, KnownAnswers) {
  const struct {
    uint16_t mode;
    float in, expect;
  } cases[] = {{4, 40, 42.5f}, {4, 350, 355},
               {4, 22.5f, 22.5f}, {4, 67.5f, 67.5f},  // half-way rounds down, then fails
               {4, 0.5f, 0.5f},   {4, 67.6f, 67.6f + 22.4f * 0.039f},
               {5, 80, 86.25f},   {0, 40, 40}};
  for (const auto &c : cases) {
    config_optimal_mode(c.mode);
    float mag[3] = {1, 2, 3}, ori[3] = {c.in, 5, 6};
    optimal_data_compensation(mag, ori, 0);
    EXPECT_FLOAT_EQ(ori[0], c.expect) << c.in;
    EXPECT_TRUE(ori[1] == 5.0f && mag[0] == 1.0f);
  }
  // NaN and infinite azimuths never reach the table.
  const float odd[] = {NAN, INFINITY, -INFINITY};
  for (float a : odd) {
    float mag[3] = {0, 0, 0}, ori[3] = {a, 0, 0};
    optimal_data_compensation(mag, ori, 0);
    EXPECT_EQ(qvn_test::Bits(ori[0]), qvn_test::Bits(a));
  }
}

TEST(TrapCompensation, StaysOnTheSameSideOfTheMark) {
  for (uint16_t mode = 0; mode <= 5; ++mode) {
    config_optimal_mode(mode);
    for (int i = 0; i < 3600; ++i) {
      const float az = static_cast<float>(i) * 0.1f, mark = 45.0f * roundf(az / 45.0f);
      float mag[3] = {0, 0, 0}, ori[3] = {az, 0, 0};
      optimal_data_compensation(mag, ori, 0);
      EXPECT_LE(fabsf(ori[0] - mark), fabsf(az - mark) + 1e-4f) << mode << " " << az;
      EXPECT_TRUE(ori[0] >= 0.0f && ori[0] < 360.0f);
    }
  }
}

TEST(FieldRotations, TurnKeepsLengthAndFollowsTheCompensation) {
  config_optimal_mode(4);
  float mag[3] = {0, 30, -40}, ori[3] = {40, 0, 0};
  optimal_data_compensation(mag, ori, 1);  // moved by 2.5 degrees
  EXPECT_NEAR(mag[0], -30 * sin(2.5 * M_PI / 180), 1e-4);
  EXPECT_NEAR(mag[1], 30 * cos(2.5 * M_PI / 180), 1e-4);
  float still[3] = {1, 2, 3};
  mag_xy_rotation(still, 0.4f, -0.3f, 0.0f);  // no yaw: untouched even when tilted
  EXPECT_TRUE(still[0] == 1.0f && still[2] == 3.0f);
  float v[2] = {2, 0};
  optimal_mag_align(v, 1.5707964f);
  EXPECT_NEAR(v[0], 0, 1e-6);
  EXPECT_NEAR(v[1], 2, 1e-6);

  qvn_test::Lcg lcg(5);
  for (int i = 0; i < 200; ++i) {
    float a[3] = {lcg.Uniform() * 50, lcg.Uniform() * 50, lcg.Uniform() * 50};
    float b[3] = {a[0], a[1], a[2]};
    const float n = sqrtf(a[0] * a[0] + a[1] * a[1] + a[2] * a[2]);
    mag_xy_rotation(a, lcg.Uniform(), lcg.Uniform(), lcg.Uniform() * 3);
    const float delta[3] = {lcg.Uniform(), lcg.Uniform(), lcg.Uniform()};
    mag_xyz_rotation(b, delta, lcg.Uniform(), lcg.Uniform());
    EXPECT_NEAR(sqrtf(a[0] * a[0] + a[1] * a[1] + a[2] * a[2]), n, 1e-4f * n);
    EXPECT_NEAR(sqrtf(b[0] * b[0] + b[1] * b[1] + b[2] * b[2]), n, 1e-4f * n);
  }
}

}  // namespace
