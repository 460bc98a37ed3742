// Orientation angles: compass known answers, quaternion angles and the
// rounding of the degree conversion.
#include <gtest/gtest.h>

#include "fusion/fusion.h"
#include "support/synthetic.h"

namespace {

struct AngleCase {
  int16_t mode;
  float q[4], acc[3], mag[3];
  float azimuth, pitch, roll;  // degrees
};

class Angles : public ::testing::TestWithParam<AngleCase> {};

TEST_P(Angles, KnownAnswers) {
  AngleCase c = GetParam();
  const float gyro[3] = {0, 0, 0};
  float out[3];
  EXPECT_EQ(ori_calculation(c.q, c.acc, c.mag, gyro, c.mode, out, 0.0f), 1);
  EXPECT_NEAR(out[0], c.azimuth, 1e-3);
  EXPECT_NEAR(out[1], c.pitch, 1e-3);
  EXPECT_NEAR(out[2], c.roll, 1e-3);
}

constexpr float kC15 = 0.9659258f, kS15 = 0.2588190f;  // cos, sin of 15 degrees

INSTANTIATE_TEST_SUITE_P(
    Cases, Angles,
    ::testing::Values(
        AngleCase{0, {1, 0, 0, 0}, {0, 0, 9.8f}, {0, 30, -40}, 0, 0, 0},
        // Y exactly 0: the quarter-turn rule.
        AngleCase{0, {1, 0, 0, 0}, {0, 0, 9.8f}, {30, 0, -40}, 270, 0, 0},
        AngleCase{0, {1, 0, 0, 0}, {0, 0, 9.8f}, {-30, 0, -40}, 90, 0, 0},
        // No accelerometer: level, azimuth from the field alone.
        AngleCase{0, {1, 0, 0, 0}, {0, 0, 0}, {-20, -20, -40}, 135, 0, 0},
        // Face down: X and Y mirrored.
        AngleCase{0, {1, 0, 0, 0}, {0, 0, -9.8f}, {0, -30, 40}, 180, -180, 0},
        // Quaternion path, zero vectors: a turn of theta about z, x or y
        // reads -theta; a -0 azimuth is not wrapped to 360.
        AngleCase{1, {1, 0, 0, 0}, {0, 0, 0}, {0, 0, 0}, 0, 0, 0},
        AngleCase{1, {0.9961947f, 0, 0, 0.0871557f}, {0, 0, 0}, {0, 0, 0}, 350, 0, 0},
        AngleCase{1, {kC15, kS15, 0, 0}, {0, 0, 0}, {0, 0, 0}, 0, -30, 0},
        AngleCase{1, {kC15, 0, -kS15, 0}, {0, 0, 0}, {0, 0, 0}, 0, 0, 30}));

TEST(OriCalculation, DegreesRoundInFloatThenDouble) {
  // angle * 180 rounds in float before the double division by pi; a wholly
  // double conversion differs in the last bit for some of these angles.
  qvn_test::Lcg lcg(7);
  int differs = 0;
  for (int i = 0; i < 200; ++i) {
    const float acc[3] = {lcg.Uniform(), lcg.Uniform(), lcg.Uniform() + 0.2f};
    const float mag[3] = {lcg.Uniform() * 40, lcg.Uniform() * 40, -30};
    float rad[3], deg[3], q[4] = {1, 0, 0, 0};
    calculate_ypr_angle(acc, mag, rad);
    ori_calculation(q, acc, mag, acc, 0, deg, 0.0f);
    for (int k = 0; k < 3; ++k) {
      const double p = static_cast<double>(rad[k] * 180.0f);
      EXPECT_EQ(qvn_test::Bits(deg[k]), qvn_test::Bits(static_cast<float>(p / 3.14159265359)));
      differs += deg[k] != static_cast<float>(rad[k] * 180.0 / 3.14159265359);
    }
  }
  EXPECT_GT(differs, 0);
}

}  // namespace
