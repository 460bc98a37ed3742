// Debounced soft gyroscope: motion debounce, fade-out and angle shaping. Its
// tracking of a turn is covered through the entry table in soft_gyro_test.
#include <math.h>

#include <gtest/gtest.h>

#include "fusion/fusion.h"
#include "fusion/soft_gyro_scene.h"
#include "support/param_name.h"

namespace {

using sg_test::AxisAngle;
using sg_test::Mat3;
using sg_test::Mul;

constexpr float kDt = 0.02f;  // s
constexpr int16_t kOdr = 50;  // Hz: motion lasts, and fades over, 100 steps

using sg_test::Outputs;

Outputs Step(Vec3f acc, Vec3f mag) { return sg_test::Run(softgyro_orvel, acc, mag, kDt); }
Outputs Step(const Mat3 &r) { return sg_test::Run(softgyro_orvel, r, kDt); }

struct Debounce {
  const char *name;
  uint16_t acc_bits;
  int16_t moving_times;
  const char *pattern;  // per step: 'O' accelerometer moves by 1 m/s^2, 'Q' repeats
  int arm_step;         // step that declares motion, -1 for none
};

class DebounceTest : public ::testing::TestWithParam<Debounce> {};

// Motion is declared after moving_times + 1 consecutive over-threshold steps,
// a quiet step restarts the count, and a sensor whose difference is never
// formed (no bit set) never declares motion, so its rates stay faded to 0.
TEST_P(DebounceTest, DeclaresMotionAfterConsecutiveSteps) {
  const Debounce d = GetParam();
  sg_test::StartUp(kOdr);
  sg_test::PassThrough();
  g_debounce_number_acc = d.acc_bits;
  g_zdb_moving_times = d.moving_times;
  const Vec3f mag{20.0f, 5.0f, -40.0f};
  Vec3f acc{1.0f, 2.0f, 9.5f};
  int run = 0;
  for (int k = 0; d.pattern[k] != '\0'; ++k) {
    // The first step differs from the zero reference, so it is always 'O'.
    if (d.pattern[k] == 'O' && k > 0) acc.x = acc.x == 1.0f ? 2.0f : 1.0f;
    const Outputs o = Step(acc, mag);
    ASSERT_EQ(1, o.result);
    run = (d.pattern[k] == 'O' && (d.acc_bits & 0x09) != 0) ? run + 1 : 0;
    if (k == d.arm_step) {
      EXPECT_EQ(2 * kOdr - 1, zdb_counter) << k;
      EXPECT_EQ(2.0f * kOdr, zdb_counter_2) << k;
      EXPECT_EQ(0, zdb_moving_number_acc) << k;
      run = 0;
    } else if (d.arm_step < 0 || k < d.arm_step) {
      EXPECT_EQ(0, zdb_counter) << k;
      EXPECT_EQ(run, zdb_moving_number_acc) << k;
      for (float g : o.gyr) EXPECT_EQ(0.0f, fabsf(g)) << k;
    }
  }
  EXPECT_EQ(0, zdb_moving_number_mag);  // no magnetic bit: never counts
}

INSTANTIATE_TEST_SUITE_P(
    Table, DebounceTest,
    ::testing::Values(Debounce{"raw_at_once", 0x01, 0, "OQQ", 0},
                      Debounce{"filtered_at_once", 0x08, 0, "OQQ", 0},
                      Debounce{"raw_after_five", 0x01, 4, "OOOOQOOOOOQ", 9},
                      Debounce{"filtered_after_five", 0x08, 4, "OOOOQOOOOOQ", 9},
                      Debounce{"high_byte_ignored", 0x100, 0, "OOOO", -1},
                      Debounce{"no_difference", 0x00, 0, "OOOOO", -1}),
    qvn_test::ByName());

struct Fade {
  const char *name;
  uint16_t zero_x, zero_z;
};

class FadeTest : public ::testing::TestWithParam<Fade> {};

// Every smoothing stage passes through, so each step reports the angles of
// that step's rotation over dt. Those differ from the body rate by products of
// two rates times dt/2 (|w|^2 dt / 2 < 3e-3 rad/s here). Motion declared on
// the first step lasts 100 steps at 50 Hz; then the rates, the same on every
// step of the steady turn, are scaled by 99/100, 98/100, ... and are 0 from
// the 100th still step on.
TEST_P(FadeTest, RatesFadeLinearlyAfterMotion) {
  const Fade f = GetParam();
  sg_test::StartUp(kOdr);
  sg_test::PassThrough();
  g_debounce_number_acc = 0x01;
  g_en_gyr0_zero = f.zero_x;
  g_en_gyr2_zero = f.zero_z;
  const double w[3] = {0.3, -0.2, 0.4};  // rad/s; z above the carry band
  const Mat3 turn = AxisAngle(w[0], w[1], w[2], sqrt(0.29) * kDt);
  const bool zeroed[3] = {f.zero_x != 0, false, f.zero_z != 0};
  Mat3 r = sg_test::Identity();
  ASSERT_EQ(1, Step(r).result);
  float full[3] = {0.0f, 0.0f, 0.0f};
  for (int k = 1; k < 220; ++k) {
    r = Mul(r, turn);
    const Outputs o = Step(r);
    ASSERT_EQ(1, o.result) << k;
    for (int i = 0; i < 3; ++i) {
      if (k < 100) {
        EXPECT_NEAR(zeroed[i] ? 0.0 : w[i], o.gyr[i], 3e-3) << "step " << k << " axis " << i;
        full[i] = o.gyr[i];
      } else {
        const double scale = k < 199 ? (199 - k) / 100.0 : 0.0;
        EXPECT_NEAR(full[i] * scale, o.gyr[i], 1e-4) << "step " << k << " axis " << i;
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Axes, FadeTest,
                         ::testing::Values(Fade{"all_axes", 0, 0}, Fade{"x_and_z_forced_zero", 1, 1}),
                         qvn_test::ByName());

// A 0.02 rad increment is scaled by normal_filter and starts a ten-step
// hold-off: the next ten 0.004 rad increments pass unscaled, the eleventh is
// scaled by non_normal_filter.
TEST(DebouncedSoftGyroTest, AngleShapingHoldOff) {
  sg_test::StartUp(kOdr);
  sg_test::PassThrough();
  g_debounce_number_acc = 0x01;  // motion from the first step, rates unfaded
  normal_threshold_control = 1;
  const double axis[3] = {1.0, 0.05, 0.03};  // off x, so no quaternion term is 0
  const double along_x = 1.0 / sqrt(1.0 + 0.05 * 0.05 + 0.03 * 0.03);
  Mat3 r = sg_test::Identity();
  ASSERT_EQ(1, Step(r).result);
  for (int k = 1; k <= 12; ++k) {
    const double angle = k == 1 ? 0.02 : 0.004;
    r = Mul(r, AxisAngle(axis[0], axis[1], axis[2], angle));
    const Outputs o = Step(r);
    ASSERT_EQ(1, o.result);
    const double scale = k == 1 ? normal_filter : (k <= 11 ? 1.0 : non_normal_filter);
    const double expected = angle * along_x * scale;
    EXPECT_NEAR(expected, o.gyr[0] * kDt, 1e-3 * expected) << k;
    EXPECT_EQ(k <= 11 ? 11 - k : 0, static_cast<int>(dYPR_counts[0])) << k;
  }
}

}  // namespace
