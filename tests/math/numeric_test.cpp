// Numeric helpers: known answers at the edges where rounding and the
// eleven-decimal pi decide the result.
#include <math.h>

#include <gtest/gtest.h>

#include "math/convert.h"
#include "math/math.h"
#include "support/synthetic.h"

namespace {

// In place, the norm is taken before anything is written.
TEST(SensorDataNormalize, KnownAnswersAndInPlace) {
  const struct {
    float in[3], out[3];
    int16_t ok;
  } cases[] = {{{0, 0, 0}, {0, 0, 0}, 0}, {{3, 0, 4}, {0.6f, 0, 0.8f}, 1},
               {{NAN, 1, 1}, {0, 0, 0}, 0}, {{-2, 0, 0}, {-1, 0, 0}, 1}};
  for (const auto &c : cases) {
    float out[3] = {9.0f, 9.0f, 9.0f};
    EXPECT_EQ(sensor_data_normalize(out, c.in), c.ok);
    for (int i = 0; i < 3; ++i) EXPECT_FLOAT_EQ(out[i], c.out[i]);
  }
  float v[3] = {3.0f, 0.0f, 4.0f};
  ASSERT_EQ(sensor_data_normalize(v, v), 1);
  EXPECT_TRUE(v[0] == 3.0f / 5.0f && v[2] == 4.0f / 5.0f);
}

// Every term divided by n, as the thresholds expect: a single division after
// the sums rounds differently for the seven-term series.
TEST(SensorDataStdev, KnownAnswersAndTermByTermDivision) {
  const float four[] = {1.0f, 2.0f, 3.0f, 4.0f};
  for (int n : {0, -3, 1}) EXPECT_EQ(sensor_data_stdev(four, n), 0.0f) << n;
  EXPECT_FLOAT_EQ(sensor_data_stdev(four, 4), sqrtf(1.25f));
  float data[7], mean = 0.0f, var = 0.0f;
  for (int i = 0; i < 7; ++i) data[i] = 0.1f * static_cast<float>(i * i) + 1.0f / 3.0f;
  for (float d : data) mean += d / 7.0f;
  for (float d : data) var += (d - mean) * (d - mean) / 7.0f;
  EXPECT_EQ(qvn_test::Bits(sensor_data_stdev(data, 7)), qvn_test::Bits(sqrtf(var)));
}

TEST(NormalizeAngle, WrapsWithTheElevenDecimalPi) {
  const float wrapped = static_cast<float>(3.5 - 6.28318530718);
  const struct {
    float in, out;
  } cases[] = {{3.0f, 3.0f}, {-3.0f, -3.0f}, {3.5f, wrapped}, {-3.5f, -wrapped},
               {3.1415925f, 3.1415925f}};
  for (const auto &c : cases) EXPECT_EQ(normalize_angle(c.in), c.out) << c.in;
  EXPECT_NEAR(normalize_angle(7.0f), 0.71681f, 1e-5f);
  EXPECT_NEAR(normalize_angle(-7.0f), -0.71681f, 1e-5f);
  // The float nearest pi lies above the double bound and so wraps.
  EXPECT_NEAR(normalize_angle(3.1415927f), -3.1415925f, 1e-6f);
  // Beyond the int32 range of the quotient the result is not relied upon,
  // but it must be computed without undefined behaviour.
  EXPECT_FALSE(isnan(normalize_angle(1e20f)));
  EXPECT_TRUE(isnan(normalize_angle(NAN)));
}

TEST(ScalarWrappers, RoundOnceFromDoubleAndNaNOutsideTheDomain) {
  const float xs[] = {0.1f, -1.3f, 2.9f, 1e-7f, 100.0f};
  for (float x : xs) {
    EXPECT_EQ(qvn_sin(x), static_cast<float>(sin(static_cast<double>(x))));
    EXPECT_EQ(qvn_cos(x), static_cast<float>(cos(static_cast<double>(x))));
    EXPECT_EQ(qvn_tan(x), static_cast<float>(tan(static_cast<double>(x))));
    EXPECT_EQ(qvn_atan(x), static_cast<float>(atan(static_cast<double>(x))));
    EXPECT_EQ(qvn_atan2(x, 0.5f), static_cast<float>(atan2(static_cast<double>(x), 0.5)));
  }
  EXPECT_EQ(qvn_sqrt(2.0f), sqrtf(2.0f));
  EXPECT_TRUE(isnan(qvn_sqrt(-1.0f)) && isnan(qvn_cbrt(-8.0f)));
  EXPECT_TRUE(isnan(qvn_asin(2.0f)) && isnan(qvn_acos(-1.5f)));
  EXPECT_FLOAT_EQ(qvn_cbrt(27.0f), 3.0f);
  // pow with the double nearest a third, not cbrt: the two differ for some cubes.
  EXPECT_EQ(qvn_cbrt(1000.0f), static_cast<float>(pow(1000.0, 0.3333333333333333)));
}

TEST(Conversions, SaturateLikeTheTargetProcessor) {
  EXPECT_EQ(qvn::TruncToI32(1e20f), INT32_MAX);
  EXPECT_EQ(qvn::TruncToI32(-1e20f), INT32_MIN);
  EXPECT_EQ(qvn::TruncToI32(NAN), 0);
  EXPECT_EQ(qvn::TruncToI32(-2.9f), -2);
  // 16-bit results keep the low 16 bits of the saturated int32.
  EXPECT_EQ(qvn::TruncToI16(40000.0f), static_cast<int16_t>(40000 - 65536));
  EXPECT_EQ(qvn::TruncToI16(1e20f), static_cast<int16_t>(-1));
  EXPECT_EQ(qvn::TruncToI16(-1e20f), 0);
  EXPECT_EQ(qvn::TruncToI64(1e30), INT64_MAX);
}

}  // namespace
