// The squared-distance test must decide every input as the square-root test
// does: d2 < SquaredLimit(limit) exactly when sqrtf(d2) < limit.
#include <float.h>
#include <math.h>

#include <gtest/gtest.h>

#include "cali/cali.h"
#include "math/root_compare.h"
#include "support/synthetic.h"

namespace {

float Neighbour(float f, int32_t by) {
  return qvn_test::FromBits(qvn_test::Bits(f) + static_cast<uint32_t>(by));
}

// Both tests on d2, for the floats around the threshold, the special values
// and a spread of random positive floats.
void ExpectSameDecisions(float limit) {
  const float t = qvn::SquaredLimit(limit);
  std::vector<float> probes = {0.0f, FLT_MIN, FLT_TRUE_MIN, 1.0f, FLT_MAX, INFINITY, NAN};
  if (t > 0.0f && !isinf(t) && !isnan(t)) {
    for (int32_t k = -64; k <= 64; ++k) probes.push_back(Neighbour(t, k));
  }
  qvn_test::Lcg rng(static_cast<uint32_t>(probes.size()) + 17u);
  for (int i = 0; i < 20000; ++i) {
    probes.push_back(Neighbour(0.0f, static_cast<int32_t>(rng.Next() >> 1)));
  }
  for (float d2 : probes) {
    if (!(d2 >= 0.0f) && !isnan(d2)) continue;  // squared distances are never negative
    EXPECT_EQ(d2 < t, sqrtf(d2) < limit) << "limit " << limit << " d2 " << d2;
  }
}

class RootCompare : public ::testing::TestWithParam<float> {};

TEST_P(RootCompare, DecidesAsTheSquareRoot) { ExpectSameDecisions(GetParam()); }

INSTANTIATE_TEST_SUITE_P(Limits, RootCompare,
                         ::testing::Values(0.0f, -0.0f, -1.0f, NAN, INFINITY, -INFINITY,
                                           FLT_TRUE_MIN, 3.7e-23f, 1e-20f, 1e-10f, 0.072f,
                                           0.84852815f, 2.1213202f, 1.0f, 45.0f, 1e19f,
                                           1.8446743e19f, 2e19f, FLT_MAX));

// The threshold is the smallest float whose root reaches the limit, for
// limits drawn over the whole positive range.
TEST(RootCompare, ThresholdIsTheFirstFloatWhoseRootReachesTheLimit) {
  qvn_test::Lcg rng(3);
  for (int i = 0; i < 200000; ++i) {
    const float limit = Neighbour(0.0f, 1 + static_cast<int32_t>(rng.Next() % 0x7F7FFFFFu));
    const float t = qvn::SquaredLimit(limit);
    ASSERT_GE(sqrtf(t), limit) << limit;
    if (t > 0.0f) {
      ASSERT_LT(sqrtf(Neighbour(t, -1)), limit) << limit;
    }
  }
}

// mag_is_effective against the plain square-root scan, for batches of every
// length class (blocks of eight and a tail) and spacings around the
// distances actually present.
TEST(RootCompare, DistanceTestMatchesTheSquareRootScan) {
  qvn_test::Lcg rng(11);
  for (int round = 0; round < 3000; ++round) {
    const int16_t n = static_cast<int16_t>(1 + rng.Next() % QVN_BATCH_CAPACITY);
    for (int i = 0; i < n; ++i) {
      for (int a = 0; a < 3; ++a) dsc_data_mag[a][i] = 50.0f * rng.Uniform();
    }
    dsc_data_num = n;
    const float sample[3] = {50.0f * rng.Uniform(), 50.0f * rng.Uniform(), 50.0f * rng.Uniform()};
    const Vec3f pre = dsc_pre_mag;
    float p[3] = {pre.x, pre.y, pre.z};
    for (int a = 0; a < 3; ++a) {
      p[a] = static_cast<float>(static_cast<double>(sample[a] - p[a]) * 0.8 + p[a]);
    }
    // A spacing equal to one of the present distances is the hardest case.
    const int j = static_cast<int>(rng.Next() % static_cast<uint32_t>(n));
    const float dx = dsc_data_mag[0][j] - p[0], dy = dsc_data_mag[1][j] - p[1];
    const float dz = dsc_data_mag[2][j] - p[2];
    const float near = sqrtf(dx * dx + dy * dy + dz * dz);
    dsc_mag_distance = Neighbour(near, static_cast<int32_t>(rng.Next() % 3) - 1);
    int16_t want = 1;
    for (int i = 0; i < n && want == 1; ++i) {
      const float ex = dsc_data_mag[0][i] - p[0], ey = dsc_data_mag[1][i] - p[1];
      const float ez = dsc_data_mag[2][i] - p[2];
      if (sqrtf(ex * ex + ey * ey + ez * ez) < dsc_mag_distance) want = 0;
    }
    ASSERT_EQ(mag_is_effective(sample), want) << "round " << round;
  }
}

}  // namespace
