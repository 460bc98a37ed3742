// Calibration driver: the hold regime, repeated timestamps, radius
// rescaling, the drift filter, and a synthetic end-to-end run through the
// public entry table.
#include <math.h>

#include <string>

#include <gtest/gtest.h>

#include "api/api.h"
#include "cali/cali.h"
#include "platform/host/host_platform.h"
#include "support/synthetic.h"

namespace {

// Hold regime throughout: nothing is fitted, the output shows the calibration
// in force. qvn_algo_odr stays at its 30 Hz default.
class DriverHold : public ::testing::Test {
 protected:
  void SetUp() override {
    g_en_mtkScpLog = 0;
    qvn_MagCal_initial(0);
    cali_first = 1;
    mag_interf_countdown = mag_interf_countdown_threshold = 1000;
  }
  void Step(float x, float y, float z, float gyro_x = 0.0f) {
    float acc[3] = {0.0f, 0.0f, 9.8f}, gyro[3] = {gyro_x, 0.0f, 0.0f};
    mag_[0] = x, mag_[1] = y, mag_[2] = z;
    qvn_DoMagCali(acc, mag_, gyro, t_ += 20000000);
  }
  float mag_[3] = {0.0f, 0.0f, 0.0f};
  uint64_t t_ = 5000000000ull;
};

TEST_F(DriverHold, CorrectsClampsAndNeverSeedsAnOffset) {
  static_sfi[0] = 2.0f;  // x' = 2x: 3000 is clamped to the 2200 uT range
  hdi_array[1] = 5.0f;
  ASSERT_EQ(mag_cali_mode, 0);
  Step(1500.0f, 10.0f, 0.0f);
  EXPECT_EQ(mag_[0], 2200.0f);  // in place
  EXPECT_EQ(qvn_mag[1], 5.0f);
  // Mode 0 at accuracy 0: the hold code read unsigned (65535 >= 5) would
  // adopt the empty candidate as a first offset.
  EXPECT_EQ(qvn_accuracy, 0);
  EXPECT_EQ(hdi_array[1], 5.0f);
  Step(100.0f, -900.0f, 0.0f);      // one raw axis above 800 uT
  EXPECT_EQ(interf_cnt_cnt, 1800);  // 30 Hz x 60 s
}

TEST_F(DriverHold, RepeatedTimestampStopsAfterInPlaceCorrections) {
  gyr_axis[0] = 2, gyr_axis[1] = 3, gyr_axis[2] = 1;
  float acc[3] = {0, 0, 0}, gyro[3] = {1.0f, 2.0f, 3.0f};
  float m1[3] = {10.0f, 0.0f, 0.0f}, m2[3] = {20.0f, 0.0f, 0.0f};
  EXPECT_EQ(qvn_DoMagCali(acc, m1, gyro, 7000000000ull), 0);
  EXPECT_EQ(qvn_DoMagCali(acc, m2, gyro, 7000000000ull), 65534);
  EXPECT_EQ(gyro[0], 3.0f);  // remapped twice
  EXPECT_EQ(gyro[2], 2.0f);
  EXPECT_EQ(qvn_mag[0], 10.0f);
  const int16_t zero_code[3] = {2, 1, 0};  // 0 (or beyond +-3) leaves a vector alone
  sensor_placement_adjustment(gyro, zero_code);
  EXPECT_EQ(gyro[0], 3.0f);
}

TEST_F(DriverHold, RadiusRescalingAtLowRates) {
  const struct {
    uint16_t radc;
    int16_t rate;
    float radius, ratio;
  } cases[] = {{1, 10, 25.0f, 1.4f}, {1, 10, 70.0f, 0.78f}, {1, 10, 45.0f, 1.23f},  // 45: kept
               {1, 15, 25.0f, 1.0f}, {0, 10, 25.0f, 1.0f},  {2, 10, 25.0f, 1.0f}};
  for (const auto &c : cases) {
    g_radc = c.radc, qvn_algo_odr = c.rate, cali_radius = c.radius, rad_ratio = 1.23f;
    Step(10.0f, 0.0f, 0.0f);
    Step(10.0f, 0.0f, 0.0f);
    EXPECT_FLOAT_EQ(rad_ratio, c.ratio) << c.radc << " " << c.rate << " " << c.radius;
    EXPECT_FLOAT_EQ(qvn_mag[0], 10.0f * c.ratio);
  }
}

TEST_F(DriverHold, DriftFilterAmplifiesXYAndDampsZ) {
  g_dri_filter_set = 1;
  mag_cali_mode = 2;
  Step(10.0f, 20.0f, 30.0f);         // the reference
  Step(12.0f, 21.0f, 29.0f, 0.01f);  // still
  EXPECT_EQ(qvn_mag[0], 13.0f);
  EXPECT_EQ(qvn_mag[1], 21.5f);
  EXPECT_EQ(qvn_mag[2], 29.5f);
  EXPECT_EQ(sg_mag[0], 12.0f);
  Step(14.0f, 25.0f, 27.0f, 0.06f);  // moving: x, y follow, z accumulates
  EXPECT_EQ(qvn_mag[0], 14.0f);
  EXPECT_EQ(qvn_nonfilter_mag[2], 28.0f);
  Step(14.0f, 25.0f, 26.0f, 0.01f);
  EXPECT_EQ(qvn_mag[2], 27.5f);
}

// ---- end to end through the public table, 50 Hz, profile settings ----

struct RunResult {
  CaliResult last;
  int first_accurate = -1;
  float worst_field_error = 0.0f;  // | |field| - radius | once at accuracy 3
  int16_t period_at_burst = -1;     // interf_cnt_cnt after the burst sample
  int period_steps = 0;             // samples fitted by the interference method
};

// Samples offset + radius * random direction + noise, in the frame after the
// device matrix; the raw samples undo that matrix. Sample burst_at has a raw
// x of 600 uT.
RunResult DriveTable(const float offset[3], float radius, int samples, int burst_at = -1,
                     const char *hwname = "") {
  qvn_host_set_sysfs_root("/nonexistent-qvn-sysfs");  // no charging current
  qvn_host_property_set("ro.boot.hwname", hwname);
  const ChipInfo chip = {0, 0, 1};
  MAG_LIB_API_INTERFACE.QVN_CaliInitLib(&chip);
  const float *s = static_sfi;
  const double a = s[0], b = s[1], c = s[2], d = s[3], e = s[4], f = s[5], g = s[6], h = s[7],
               k = s[8];
  const double det = a * (e * k - f * h) - b * (d * k - f * g) + c * (d * h - e * g);
  const double inv[9] = {e * k - f * h, c * h - b * k, b * f - c * e, f * g - d * k, a * k - c * g,
                         c * d - a * f, d * h - e * g, b * g - a * h, a * e - b * d};
  qvn_test::Lcg rng(20240709u);
  RunResult r;
  for (int n = 0; n < samples; ++n) {
    float u[3], len2;
    do {
      for (float &x : u) x = rng.Uniform();
      len2 = u[0] * u[0] + u[1] * u[1] + u[2] * u[2];
    } while (len2 > 1.0f || len2 < 0.01f);
    double fld[3];
    for (int i = 0; i < 3; ++i)
      fld[i] = offset[i] + radius * u[i] / sqrtf(len2) + 0.3f * rng.Uniform();
    SensorEvent ev = {1000000000 + n * 20000000LL, 0, 0, 0, 3};
    float *raw[3] = {&ev.x, &ev.y, &ev.z};
    for (int i = 0; i < 3; ++i) {
      *raw[i] = static_cast<float>(
          (inv[3 * i] * fld[0] + inv[3 * i + 1] * fld[1] + inv[3 * i + 2] * fld[2]) / det);
    }
    if (n == burst_at) ev.x = 600.0f;
    const int16_t period = interf_cnt_cnt;
    MAG_LIB_API_INTERFACE.QVN_CaliApiSetMagData(&ev);
    MAG_LIB_API_INTERFACE.QVN_DoCaliAPI(&ev, &r.last);
    if (n == burst_at) r.period_at_burst = interf_cnt_cnt;
    if (interf_cnt_cnt == period - 1 && mag_cali_mode == k7q_interference_mode) ++r.period_steps;
    if (r.last.accuracy != 3) continue;
    if (r.first_accurate < 0) r.first_accurate = n;
    // Fusion's copy: on the NFC variant the host's copy is low-passed.
    const Vec3f &v = g_fusion_mag;
    const float m = sqrtf(v.x * v.x + v.y * v.y + v.z * v.z);
    r.worst_field_error = fmaxf(r.worst_field_error, fabsf(m - radius));
  }
  return r;
}

// Both device variants: the profile's matrix and limits are in force.
class DriverEndToEndVariant : public ::testing::TestWithParam<const char *> {};

TEST_P(DriverEndToEndVariant, BallMethodFindsOffsetAndReachesAccuracy3) {
  const float offset[3] = {23.5f, -41.0f, 12.25f};
  const RunResult r = DriveTable(offset, 45.0f, 1000, -1, GetParam());
  const bool nfc = hashasNFC != 0;
  // The host's copy is low-passed on the NFC variant only, from zero.
  EXPECT_EQ(r.last.x == g_fusion_mag.x, !nfc);
  // Rate 10 on the first sample, 50 on the 14th with a 100-sample hold, then
  // a 100-sample batch: the first fit lands after some 215 samples.
  EXPECT_GE(r.first_accurate, 200);
  EXPECT_LE(r.first_accurate, 400);
  EXPECT_EQ(r.last.accuracy, 3);
  EXPECT_NEAR(r.last.bias_x, 23.5f, 0.5f);
  EXPECT_NEAR(r.last.bias_y, -41.0f, 0.5f);
  EXPECT_NEAR(r.last.bias_z, 12.25f, 0.5f);
  EXPECT_LT(r.worst_field_error, 1.0f);
  EXPECT_EQ(qvn_caliParameter[1], static_cast<int32_t>(r.last.bias_y * 100.0f));
}

INSTANTIATE_TEST_SUITE_P(Profiles, DriverEndToEndVariant, ::testing::Values("trel", "vask"),
                         [](const ::testing::TestParamInfo<const char *> &i) {
                           return std::string(i.param);
                         });

// A raw axis above the profile's 450 uT during the hold after the rate switch
// starts an interference period of 50 Hz x 60 s samples, each fitted by the
// profile's interference method; calibration converges all the same.
TEST(DriverEndToEnd, InterferenceBurstDuringAHoldStartsAPeriod) {
  const float offset[3] = {23.5f, -41.0f, 12.25f};
  const RunResult r = DriveTable(offset, 45.0f, 4500, 20);
  EXPECT_EQ(r.period_at_burst, 50 * 60);
  EXPECT_EQ(r.period_steps, 50 * 60);
  EXPECT_EQ(interf_cnt_cnt, 0);
  EXPECT_EQ(r.last.accuracy, 3);
  EXPECT_NEAR(r.last.bias_x, 23.5f, 0.5f);
  EXPECT_NEAR(r.last.bias_y, -41.0f, 0.5f);
  EXPECT_NEAR(r.last.bias_z, 12.25f, 0.5f);
}

TEST(DriverEndToEnd, OutsideTheLimitsNothingIsAdopted) {
  const struct {
    float offset[3];
    float radius;
  } cases[] = {{{2300.0f, -20.0f, 10.0f}, 45.0f},  // beyond the 2200 uT range: clipped, held
               {{10.0f, 20.0f, -5.0f}, 80.0f},     // radius above 70 uT
               {{10.0f, 20.0f, -5.0f}, 20.0f}};    // radius below 25 uT
  for (const auto &c : cases) {
    const RunResult r = DriveTable(c.offset, c.radius, 800);
    EXPECT_EQ(r.first_accurate, -1) << c.offset[0] << " " << c.radius;
    EXPECT_EQ(cali_update, 0);
    EXPECT_EQ(r.last.bias_x, 0.0f);
    if (c.radius != 45.0f) {
      EXPECT_EQ(mag_cali_check_err, 4);  // fits ran and the radius test refused them
    }
  }
}

}  // namespace
