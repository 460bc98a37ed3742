// The azimuth and field moving average.
#include <gtest/gtest.h>

#include "optimal/optimal.h"

namespace {

struct AvgCase {
  float pre, in, weight, expect;  // degrees; weight for all four
  bool held;
};

class MovingAverage : public ::testing::TestWithParam<AvgCase> {};

TEST_P(MovingAverage, AzimuthAndField) {
  const AvgCase c = GetParam();
  orient_pre[0] = c.pre;
  magnet_pre[0] = 10.0f;
  m_mvavg_weight_slow = m_mvavg_weight_fast = o_mvavg_weight_slow = o_mvavg_weight_fast = c.weight;
  float mag[3] = {20, 0, 0}, ori[3] = {c.in, 7, 8};
  EXPECT_EQ(optimal_moving_average(mag, ori), mag);
  EXPECT_FLOAT_EQ(ori[0], c.expect);
  const float w = (c.weight > 0.0f && c.weight <= 1.0f) ? c.weight : 1.0f;  // reset to 1
  EXPECT_EQ(o_mvavg_weight_fast, w);
  EXPECT_FLOAT_EQ(mag[0], c.held ? 10.0f : 10.0f + w * 10.0f);
  EXPECT_TRUE(orient_pre[0] == ori[0] && magnet_pre[0] == mag[0] && ori[1] == 7.0f);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, MovingAverage,
    ::testing::Values(AvgCase{359, 1, 1, 1, false},  // +2, not -358
                      AvgCase{1, 359, 1, 359, false},
                      AvgCase{100, 101, 1, 100, true},  // dead band
                      AvgCase{100, 101.3f, 1, 101.3f, false},
                      AvgCase{100, 110, 0.5f, 105, false}, AvgCase{100, 110, 0, 110, false},
                      AvgCase{100, 110, 1.5f, 110, false},
                      // -1e-6 + 360 rounds to 360 after the negative wrap.
                      AvgCase{10, -1e-6f, 1, 0, false}));

TEST(MovingAverage, SlowBelowSwitchAngleAndUnchangedTouchesNothing) {
  o_mvavg_weight_switch_angle = 3.0f;
  o_mvavg_weight_slow = 0.5f;
  orient_pre[0] = 50.0f;
  float mag[3] = {1, 2, 3}, ori[3] = {52.5f, 0, 0};
  optimal_moving_average(mag, ori);
  EXPECT_FLOAT_EQ(ori[0], 51.25f);
  magnet_pre[1] = 5.0f;
  float same[3] = {51.25f, 0, 0};
  optimal_moving_average(mag, same);
  EXPECT_TRUE(mag[1] == 2.0f && magnet_pre[1] == 5.0f);
}

}  // namespace
