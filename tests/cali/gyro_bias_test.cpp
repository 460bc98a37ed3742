// Gyroscope bias estimators: still blocks set the bias, moving blocks keep
// it, the two paths hold separate state yet compute identically, and the
// window stays inside its 300 samples per axis whatever the rate or index.
#include <math.h>

#include <gtest/gtest.h>

#include "cali/cali.h"
#include "support/synthetic.h"

namespace {

TEST(GyroBias, StillBlockSetsTheBiasMovingBlockKeepsIt) {
  // Default 30 Hz: blocks of 15; the 15th call is already corrected.
  float g[3];
  for (int i = 0; i < 15; ++i) {
    g[0] = 1.0f, g[1] = -2.0f, g[2] = 0.5f;
    qvn_fusion_gyro(g);
  }
  EXPECT_TRUE(g[0] == 0.0f && g[1] == 0.0f && g[2] == 0.0f);
  EXPECT_EQ(gyr_cali_bias[0], 0.0f);  // the other path is untouched
  // y swings by 0.04 rad/s: the block is not still, the bias stays.
  for (int i = 0; i < 15; ++i) {
    g[0] = 0.5f, g[1] = (i % 2) ? 0.04f : 0.0f, g[2] = 0.5f;
    qvn_fusion_gyro(g);
  }
  EXPECT_EQ(gyr_fusion_bias[1], -2.0f);
  EXPECT_EQ(gyr_fusion_index, 0);
}

TEST(GyroBias, OffBelowOneHertzAndNanAtOneHertz) {
  gyr_cali_bias[0] = 0.25f;
  for (int16_t odr : {0, -30}) {
    qvn_algo_odr = odr;
    float g[3] = {1.0f, 2.0f, 3.0f};
    qvn_cali_gyro(g);
    EXPECT_TRUE(g[0] == 1.0f && gyr_cali_index == 0) << odr;
  }
  // Half a sample is none: the empty block's mean is 0/0.
  qvn_algo_odr = 1;
  float g[3] = {0.1f, 0.2f, 0.3f};
  qvn_cali_gyro(g);
  EXPECT_TRUE(isnan(gyr_cali_bias[0]) && isnan(g[2]));
}

TEST(GyroBias, PathsComputeBitIdenticalResults) {
  qvn_test::Lcg lcg(77u);
  for (int i = 0; i < 400; ++i) {
    const float amp = (i / 15) % 3 == 0 ? 0.5f : 0.001f;  // some blocks move
    float a[3] = {0.02f + amp * lcg.Uniform(), -0.01f + amp * lcg.Uniform(), amp * lcg.Uniform()};
    float b[3] = {a[0], a[1], a[2]};
    qvn_cali_gyro(a);
    qvn_fusion_gyro(b);
    for (int k = 0; k < 3; ++k) ASSERT_EQ(qvn_test::Bits(a[k]), qvn_test::Bits(b[k])) << i;
  }
  EXPECT_NE(gyr_cali_bias[0], 0.0f);
}

TEST(GyroBias, WindowStaysInsideItsPlanes) {
  // Rates far above 601 Hz and indexes a host may have written.
  const int16_t cases[][2] = {{32767, 0}, {1000, 5000}, {30, -5}, {30, -32768}, {700, 32767}};
  for (const auto &c : cases) {
    qvn_algo_odr = c[0];
    gyr_cali_index = c[1];
    int calls = 0;
    do {
      float g[3] = {0.001f, 0.002f, 0.003f};
      qvn_cali_gyro(g);
      ASSERT_TRUE(gyr_cali_index >= 0 && gyr_cali_index <= 300) << c[0] << "/" << c[1];
    } while (gyr_cali_index != 0 && ++calls < 1000);
    EXPECT_LT(calls, 300) << c[0] << "/" << c[1];  // blocks still close
    EXPECT_NEAR(gyr_cali_bias[2], 0.003f, 1e-7f);  // float sum of up to 300 terms
  }
}

}  // namespace
