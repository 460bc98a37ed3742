// Interference detection (exact clip, 300 uT jump from the last detection),
// the countdown it starts, and the clipped soft-iron product.
#include <gtest/gtest.h>

#include "cali/cali.h"

#include "support/param_name.h"

namespace {

struct FlagCase {
  const char *name;
  float pre[3], sample[3];  // last detection, raw sample (uT)
  bool flagged;
} const kCases[] = {
    {"x_at_full_scale", {0, 0, 0}, {1600, 0, 0}, true},
    {"z_at_negative_full_scale", {0, 0, 0}, {0, 0, -1600}, true},
    {"just_below_full_scale", {1500, 0, 0}, {1599.9f, 0, 0}, false},
    {"jump_250", {0, 0, 0}, {250, 0, 0}, false},
    {"jump_300", {0, 0, 0}, {0, 300, 0}, false},
    {"jump_301", {0, 0, 0}, {301, 0, 0}, true},
    {"back_from_301", {301, 0, 0}, {0, 0, 0}, true},
};

class InterferenceFlag : public ::testing::TestWithParam<FlagCase> {};

TEST_P(InterferenceFlag, FlagsClipsAndJumps) {
  const FlagCase &c = GetParam();
  mag_field_range = 1600.0f;
  mag_interf_countdown_threshold = 40;
  for (int i = 0; i < 3; ++i) mag_interf_pre[i] = c.pre[i];
  dsc_data_num = 77;
  qvn_mag_interference(c.sample);
  EXPECT_EQ(mag_interf_countdown, c.flagged ? 40 : 0);
  EXPECT_EQ(qvn_mag_interference_detection(), c.flagged ? 1 : 0);
  EXPECT_EQ(dsc_data_num, c.flagged ? 0 : 77);  // a detection drops the batch
  EXPECT_EQ(mag_interf_pre[0], c.flagged ? c.sample[0] : c.pre[0]);
}

INSTANTIATE_TEST_SUITE_P(Cases, InterferenceFlag, ::testing::ValuesIn(kCases), qvn_test::ByName());

TEST(Interference, CountdownRunsDownAndRestartsAtFullLength) {
  mag_field_range = 1600.0f;
  mag_interf_countdown_threshold = 5;
  const float clip[3] = {1600, 0, 0}, calm[3] = {1590, 0, 0};
  qvn_mag_interference(clip);
  for (int i = 0; i < 3; ++i) qvn_mag_interference(calm);
  EXPECT_EQ(mag_interf_countdown, 2);
  qvn_mag_interference(clip);
  EXPECT_EQ(mag_interf_countdown, 5);
  for (int i = 0; i < 6; ++i) qvn_mag_interference(calm);
  EXPECT_EQ(mag_interf_countdown, 0);  // and never wraps below zero
}

TEST(Interference, SfiReduceMultipliesFromTheIncomingVectorThenClips) {
  mag_field_range = 1600.0f;
  const float identity[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
  float v[3] = {2000, 0, -2000};
  EXPECT_EQ(qvn_sfi_reduce(v, identity), v);
  EXPECT_TRUE(v[0] == 1600.0f && v[1] == 0.0f && v[2] == -1600.0f);
  // Each row reads the vector as it came in, not the rows already written.
  const float mix[9] = {0, 1, 0, 1, 0, 0, 1, 1, 1};
  float w[3] = {3, 5, 7};
  qvn_sfi_reduce(w, mix);
  EXPECT_TRUE(w[0] == 5.0f && w[1] == 3.0f && w[2] == 15.0f);
}

}  // namespace
