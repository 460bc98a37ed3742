// Dynamic offset: given still or moving gyroscope readings and fields inside
// or outside the guard band, the reference, the offset and the corrected
// sample follow each step.
#include <math.h>

#include <gtest/gtest.h>

#include "cali/cali.h"

namespace {

const float kStill[3] = {0.01f, -0.02f, 0.0f};  // 0.02f is below the double 0.02
const float kMoving[3] = {0.0f, 0.0f, 0.021f};

// Ten still samples of magnitude 40 (= qvn_radius), z varying slightly.
void SetReference() {
  for (int i = 0; i < 10; ++i) {
    float m[3] = {24.0f, 32.0f, 0.1f * static_cast<float>(i)};
    const float n = sqrtf(m[0] * m[0] + m[1] * m[1] + m[2] * m[2]);
    for (float &c : m) c = c * 40.0f / n;
    ASSERT_EQ(mag_D_offset(m, kStill), 0);
  }
  ASSERT_EQ(reset_D_offset, 1);
  ASSERT_EQ(count_D_offset, 0);
}

TEST(DynamicOffset, StraySampleBecomesReferencePlusChange) {
  SetReference();
  const float prev[3] = {pre_mag[0], pre_mag[1], pre_mag[2]};
  const float in[3] = {30.0f, 40.0f, 1.0f};  // magnitude 50
  float m[3] = {in[0], in[1], in[2]};
  EXPECT_EQ(mag_D_offset(m, kStill), 0);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(D_offset[i], in[i] - avg_mag_point[i]);
    EXPECT_NEAR(m[i], avg_mag_point[i] + (in[i] - prev[i]), 1e-4f) << i;
  }
}

TEST(DynamicOffset, AxisConditionsAreAsymmetric) {
  // m.x = 0: dy = dz = 0; dx needs only the previous sample.
  pre_mag[0] = 1.0f, pre_mag[1] = 2.0f, pre_mag[2] = 3.0f;
  float m[3] = {0.0f, 70.0f, 10.0f};
  mag_D_offset(m, kStill);
  EXPECT_TRUE(m[0] == -1.0f && m[1] == 70.0f && m[2] == 10.0f);
  // Previous y = 0: dx = dy = 0, while dz needs current x, y and previous z.
  pre_mag[0] = 5.0f, pre_mag[1] = 0.0f, pre_mag[2] = 3.0f;
  float k[3] = {60.0f, 8.0f, 10.0f};
  mag_D_offset(k, kStill);
  EXPECT_TRUE(k[0] == 60.0f && k[1] == 8.0f && k[2] == 17.0f);
}

TEST(DynamicOffset, MovingDropsReferenceAndSumButKeepsTheOffset) {
  SetReference();
  float stray[3] = {30.0f, 40.0f, 1.0f};
  mag_D_offset(stray, kStill);
  const float d0 = D_offset[0];
  float good[3] = {24.0f, 32.0f, 0.0f};
  for (int i = 0; i < 3; ++i) mag_D_offset(good, kStill);  // a partial sum
  float moving_good[3] = {24.0f, 32.0f, 0.0f};
  EXPECT_EQ(mag_D_offset(moving_good, kMoving), 1);
  EXPECT_EQ(moving_good[0], 24.0f);
  EXPECT_TRUE(reset_D_offset == 0 && count_D_offset == 0 && mag_point[1] == 0.0f);
  float far[3] = {50.0f, 10.0f, 5.0f};
  EXPECT_EQ(mag_D_offset(far, kMoving), 1);
  EXPECT_EQ(far[0], 50.0f - d0);
  // Still again without a reference: a stray sample keeps the old offset.
  float again[3] = {50.0f, 10.0f, 5.0f};
  mag_D_offset(again, kStill);
  EXPECT_EQ(D_offset[0], d0);
}

TEST(DynamicOffset, CountRunsOnWhileAReferenceExistsAndWraps) {
  SetReference();
  const float ref = avg_mag_point[0];
  float m[3] = {40.0f, 0.0f, 0.0f};
  for (int i = 0; i < 255; ++i) mag_D_offset(m, kStill);
  EXPECT_EQ(count_D_offset, 255);
  EXPECT_EQ(avg_mag_point[0], ref);  // no second reference at 10
  mag_D_offset(m, kStill);
  EXPECT_EQ(count_D_offset, 0);
}

TEST(DynamicOffset, NanDeviationTakesTheStrayCaseWhenStill) {
  SetReference();
  float m[3] = {NAN, 1.0f, 1.0f};
  EXPECT_EQ(mag_D_offset(m, kStill), 0);
  EXPECT_TRUE(isnan(D_offset[0]));
  EXPECT_EQ(mag_point[0], 0.0f);  // not added to the sum
}

}  // namespace
