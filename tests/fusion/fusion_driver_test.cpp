// The fusion step's bookkeeping: repeated timestamps, debug lines, the
// start-up ramp and dead band, the soft-gyroscope seam, the field snapshot
// and the gyroscope path's missing fold.
#include <math.h>
#include <stdlib.h>
#include <string.h>

#include <gtest/gtest.h>

#include "cali/cali.h"
#include "fusion/fusion.h"
#include "optimal/optimal.h"
#include "support/log_capture.h"

namespace {

struct Sample {
  Vec3f acc, mag, gyro;
};

void Step(Sample &s, uint64_t t) { qvn_SetFusionData(&s.acc, &s.mag, &s.gyro, t); }

void InitCompass() {
  qvn_FusionInitLib(0);
  g_slect_swgyro_mode = 0;  // the soft gyroscope is tested on its own
}

TEST(FusionStep, RepeatedTimestampChangesNothing) {
  InitCompass();
  Sample s = {{0, 0, 9.8f}, {10, 30, -40}, {0, 0, 0}};
  Step(s, 5000000000ull);
  float q[4], ori[3], ja[3];
  memcpy(q, Qfusion, sizeof q);
  memcpy(ori, qvn_ori, sizeof ori);
  memcpy(ja, ja_ori, sizeof ja);
  qvn_test::LogCapture log;
  Sample other = {{1, 2, 3}, {-30, 5, 7}, {0.005f, 0, 0}};
  const Sample kept = other;
  Step(other, 5000000000ull);
  EXPECT_EQ(0, memcmp(q, Qfusion, sizeof q));
  EXPECT_EQ(0, memcmp(ori, qvn_ori, sizeof ori));
  EXPECT_EQ(0, memcmp(ja, ja_ori, sizeof ja));
  EXPECT_EQ(0, memcmp(&kept, &other, sizeof other));
  EXPECT_TRUE(log.lines().empty());
}

TEST(FusionStep, DebugLinesPrintWholeSecondsOfDt) {
  InitCompass();
  Sample s = {{0, 0, 9.8f}, {10, 30, -40}, {0, 0, 0}};
  qvn_test::LogCapture log;
  Step(s, 1500000000ull);  // first step: dt since boot
  Step(s, 1520000000ull);  // 20 ms
  Step(s, 1000000000ull);  // backwards: the unsigned difference is huge
  const auto &l = log.lines();
  ASSERT_EQ(l.size(), 9u);
  EXPECT_EQ(l[0].text, "[QVN_LOG] g_timeStamp_lld, 1500000000\n");
  EXPECT_EQ(l[1].text, "[QVN_LOG] timestamp_fuison, 1500000000\n");
  EXPECT_EQ(l[2].text, "[QVN_LOG] delta_time, 1\n");
  EXPECT_EQ(l[5].text, "[QVN_LOG] delta_time, 0\n");
  const long long huge = atoll(l[8].text.c_str() + strlen("[QVN_LOG] delta_time, "));
  EXPECT_TRUE(huge > 18000000000LL && huge < 19000000000LL) << huge;  // ~2^64 ns
  for (const auto &line : l) EXPECT_EQ(line.priority, 3);  // DEBUG
  g_en_mtkScpLog = 0;
  log.Clear();
  Step(s, 2000000000ull);
  EXPECT_TRUE(log.lines().empty());
}

struct RampCase {
  int16_t counter;
  float gyro[3], expect_gyro[3];
  int16_t expect_counter;
};

class WeightRamp : public ::testing::TestWithParam<RampCase> {};

TEST_P(WeightRamp, DeadBandAndRearm) {
  const RampCase c = GetParam();
  fusion_start_delay_counter = c.counter;
  fusion_start_delay_time = 300;
  fusion_startup = 1;
  float g[3] = {c.gyro[0], c.gyro[1], c.gyro[2]};
  update_fusion_weight(g);
  const float r = static_cast<float>(c.counter) / 300.0f;
  EXPECT_EQ(qacc_weight, 0.02f + 0.28f * (r * r));
  EXPECT_EQ(qmag_weight, 0.003f + 0.297f * (r * r));
  for (int i = 0; i < 3; ++i) EXPECT_EQ(g[i], c.expect_gyro[i]) << i;
  EXPECT_EQ(fusion_start_delay_counter, c.expect_counter);
  EXPECT_EQ(fusion_startup, c.counter == 0 ? 0 : 1);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, WeightRamp,
    ::testing::Values(RampCase{10, {0.005f, -0.009f, 0.3f}, {0, 0, 0.3f}, 100},
                      RampCase{300, {0.02f, 0, -0.7f}, {0.02f, 0, -0.7f}, 200},
                      // 0.01f lies just below 0.01 in double: inside the band.
                      RampCase{5, {0.01f, -0.0101f, 0}, {0, -0.0101f, 0}, 4},
                      // The re-arm thresholds compare in float.
                      RampCase{5, {0, 0, 0.2f}, {0, 0, 0.2f}, 4},
                      RampCase{5, {0, 0, 0.6f}, {0, 0, 0.6f}, 100},
                      RampCase{0, {1, 1, 0}, {1, 1, 0}, 0}));

TEST(FusionStep, SoftGyroSeamAndFieldSnapshot) {
  InitCompass();
  qvn_gyr[2] = 5.0f;
  qvn_gra[2] = 9.0f;
  g_m_kmf_r = 1.0f;  // the magnetic filter now changes the field
  Sample s = {{0, 0, 9.8f}, {10, 30, -40}, {0, 0, 0}};
  Step(s, 1000000000ull);
  EXPECT_EQ(qvn_gyr[2], 0.0f);  // no soft gyroscope: only the rate is cleared
  EXPECT_EQ(qvn_gra[2], 9.0f);
  EXPECT_EQ(qvn_rov[3], 1.0f);
  EXPECT_NE(s.mag.y, 30.0f);        // filtered in place
  EXPECT_EQ(magnet_pre[1], 30.0f);  // averaged from the snapshot before the filter
}

TEST(FusionStep, GyroscopePathNeverFolds) {
  qvn_FusionInitLib(1);
  g_slect_swgyro_mode = 0;
  g_enable_mag_data_compensation = 0;
  fusion_start_delay_time = fusion_start_delay_counter = 10;
  // Attitude pitched to 100 degrees; zero vectors leave it uncorrected.
  Qfusion[0] = cosf(-0.8726646f);
  Qfusion[1] = sinf(-0.8726646f);
  Sample s = {{0, 0, 0}, {0, 0, 0}, {0, 0, 0}};
  Step(s, 1000000000ull);
  EXPECT_NEAR(ja_ori[1], 100.0f, 1e-3);
  EXPECT_EQ(ja_ori[0], 0.0f);  // folded, it would read 180
}

}  // namespace
