// Sample collection: the moving reference, the reject counter, halving,
// trimming and the rotation level.
#include <gtest/gtest.h>

#include "cali/cali.h"

namespace {

TEST(SampleCollection, ReferenceMovesAlsoForRejectedSamples) {
  const float s[3] = {10.0f, 0.0f, 0.0f};
  dsc_mag_distance = 1.0f;
  dsc_data_num = 1;
  dsc_data_mag[0][0] = 10.0f;
  EXPECT_EQ(mag_is_effective(s), 1);  // reference moves to 8: 2 uT away
  EXPECT_EQ(mag_is_effective(s), 0);  // 9.6: too close
  EXPECT_FLOAT_EQ(dsc_pre_mag.x, 9.6f);
  dsc_data_num = 32000;  // a host-written count reads no further than the planes
  EXPECT_EQ(mag_is_effective(s), 0);
}

TEST(SampleCollection, BatchIsEmptiedOnThe302ndConsecutiveRejection) {
  g_en_mtkScpLog = 0;
  const float s[3] = {20.0f, 30.0f, 40.0f};
  float hdi[3];
  mag_cali_mag_ball(s, hdi);  // stored; every repeat is rejected
  for (int k = 1; k <= 301; ++k) {
    mag_cali_mag_ball(s, hdi);
    ASSERT_EQ(dsc_data_num, 1) << "rejection " << k;
  }
  mag_cali_mag_ball(s, hdi);
  EXPECT_EQ(dsc_data_num, 0);
}

TEST(SampleCollection, HalvingAndTrimming) {
  dsc_data_size = 7;
  for (int i = 0; i < 7; ++i) dsc_data_mag[2][i] = static_cast<float>(i);
  dsc_data_discard();
  EXPECT_EQ(dsc_data_num, 3);  // samples 1, 3, 5
  EXPECT_EQ(dsc_data_mag[2][2], 5.0f);
  dsc_data_size = 1000;  // host-written: the planes hold 300
  dsc_data_discard();
  EXPECT_EQ(dsc_data_num, 150);
  dsc_data_size = 10;
  for (int i = 0; i < 10; ++i) {
    ctn_data_gyr[1][i] = (i == 3 || i == 4) ? 0.02f : 0.5f;  // 3 and 4 at rest
    ctn_data_gdt[i] = static_cast<float>(i);
  }
  ctn_data_discard(3);
  EXPECT_EQ(dsc_data_num, 5);
  EXPECT_EQ(ctn_data_gdt[0], 5.0f);
}

TEST(SampleCollection, RotationLevelIsNeverTwo) {
  // 20 samples at ratio 0.6: full rotation needs 12 turning samples per axis,
  // some rotation 6; a spread field has a 20 uT stdev on every axis.
  const int16_t turning[] = {12, 12, 6, 5};
  const bool spread[] = {true, false, true, true};
  const int16_t level[] = {3, 1, 1, 0};
  dsc_data_size = 20;
  fss_gyr_effective_ratio = 0.6f;
  for (int c = 0; c < 4; ++c) {
    for (int a = 0; a < 3; ++a) {
      for (int i = 0; i < 20; ++i) {
        ctn_data_gyr[a][i] = (i < turning[c]) ? -1.0f : 0.05f;
        dsc_data_mag[a][i] = spread[c] ? ((i % 2) ? 20.0f : -20.0f) : 5.0f;
      }
    }
    EXPECT_EQ(gyro_is_effective(), level[c]) << "case " << c;
  }
}

}  // namespace
