// Soft gyroscope on synthetic readings of a device with a known attitude.
#include <math.h>

#include <string>

#include <gtest/gtest.h>

#include "api/api.h"
#include "fusion/fusion.h"
#include "fusion/soft_gyro_scene.h"
#include "support/param_name.h"
#include "support/synthetic.h"

namespace {

using sg_test::AxisAngle;
using sg_test::Mat3;
using sg_test::Mul;

constexpr float kDt = 0.02f;  // s, 50 Hz
constexpr int16_t kOdr = 50;

using sg_test::Outputs;

Outputs Step(const Mat3 &r, float dt = kDt) { return sg_test::Run(softgyro_calculation, r, dt); }

struct Turn {
  const char *name;
  double wx, wy, wz;  // rad/s, body axes
};

class TurnTest : public ::testing::TestWithParam<Turn> {};

// While turning, the virtual rate settles on the true body rate: the filters
// delay the attitude by about 21 samples, which a constant rate passes
// unchanged after 150. What remains is geometric: one step's three angles
// differ from w dt by up to |w|^2 dt / 2 = 0.007 rad/s here, so 0.01 rad/s
// per axis. At rest afterwards the rates are exactly 0, and gravity and
// rotation vector are those of the final attitude.
TEST_P(TurnTest, RateTracksTruthAndRestsAtZero) {
  const Turn t = GetParam();
  sg_test::StartUp(kOdr);
  Mat3 r = AxisAngle(1.0, 0.3, 0.2, -0.5);
  const double w = sqrt(t.wx * t.wx + t.wy * t.wy + t.wz * t.wz);
  const Mat3 step = AxisAngle(t.wx, t.wy, t.wz, w * kDt);
  for (int k = 0; k < 50; ++k) ASSERT_EQ(1, Step(r).result);
  int refused = 0;
  for (int k = 0; k < 250; ++k) {
    r = Mul(r, step);
    const Outputs o = Step(r);
    if (o.result == 0) {
      ++refused;  // a rotation-vector term rounded below 0
      continue;
    }
    if (k < 150) continue;
    const double truth[3] = {t.wx, t.wy, t.wz};
    for (int i = 0; i < 3; ++i) EXPECT_NEAR(truth[i], o.gyr[i], 0.01) << k;
  }
  EXPECT_LE(refused, 2);
  for (int k = 0; k < 400; ++k) {
    const Outputs o = Step(r);
    if (k < 350) continue;
    ASSERT_EQ(1, o.result);
    EXPECT_EQ(0, zdb_counter);
    double g[3], q[4];
    sg_test::Gravity(r, g);
    sg_test::Quaternion(r, q);
    for (int i = 0; i < 3; ++i) {
      EXPECT_EQ(0.0f, o.gyr[i]);
      EXPECT_NEAR(g[i], o.gra[i], 2e-3);
      EXPECT_NEAR(0.0f, o.lin[i], 2e-3f);
    }
    for (int i = 0; i < 4; ++i) EXPECT_NEAR(q[i], o.rov[i], 2e-4) << i;
  }
}

INSTANTIATE_TEST_SUITE_P(Turns, TurnTest,
                         ::testing::Values(Turn{"about_z", 0.0, 0.0, 1.0},
                                           Turn{"about_tilted_axis", 0.5, -0.3, 0.6},
                                           Turn{"backwards", -0.4, 0.2, -0.9}),
                         qvn_test::ByName());

// Flat, facing north, from a reset: gravity is exact from the first call,
// which arms the moving state and halves the accelerometer toward the input,
// so the linear acceleration starts at -g/2 and then decays to 0.
TEST(SoftGyroTest, FlatDeviceFromReset) {
  sg_test::StartUp(kOdr);
  Vec3f acc{0.0f, 0.0f, 9.81f}, mag{0.0f, 20.0f, -40.0f};
  Outputs o{};
  ASSERT_EQ(1, softgyro_calculation(&acc, &mag, o.gyr, o.rov, o.gra, o.lin, kDt));
  EXPECT_EQ(2 * kOdr - 1, zdb_counter);
  EXPECT_EQ(4.905f, acc.z);  // smoothed in place
  EXPECT_TRUE(o.gra[0] == 0.0f && o.gra[1] == 0.0f && o.gra[2] == 9.81f);
  EXPECT_FLOAT_EQ(-4.905f, o.lin[2]);
  for (int k = 0; k < 300; ++k) o = Step(sg_test::Identity());
  EXPECT_NEAR(0.0f, o.lin[2], 1e-3f);
  EXPECT_EQ(9.81f, o.gra[2]);
}

// Every smoothing stage passes through, so each step's rate is exactly that
// step's attitude change about the body z axis, and the z-rate carry can be
// followed step by step.
TEST(SoftGyroTest, ZRateCarry) {
  sg_test::StartUp(kOdr);
  sg_test::PassThrough();
  Mat3 r = AxisAngle(1.0, 0.3, 0.2, -0.5);
  ASSERT_EQ(1, Step(r).result);
  ASSERT_EQ(0.0f, qvn_gyro_drps);
  const struct {
    double rate, gyr_z, carry;
  } steps[] = {{0.2, 0.08, 0.12},  {0.05, 0.08, 0.09}, {0.0, 0.08, 0.01},   {0.0, 0.01, 0.0},
               {0.3, 0.08, 0.22},  {1.0, 1.22, 0.0},   {-0.2, -0.08, -0.12}, {-0.05, -0.08, -0.09},
               {0.05, -0.04, 0.0}, {0.5, 0.5, 0.0}};
  for (const auto &s : steps) {
    r = Mul(r, AxisAngle(0.0, 0.0, 1.0, s.rate * kDt));
    const Outputs o = Step(r);
    ASSERT_EQ(1, o.result) << s.rate;
    EXPECT_NEAR(s.gyr_z, o.gyr[2], 1e-4) << s.rate;
    EXPECT_NEAR(s.carry, qvn_gyro_drps, 1e-4) << s.rate;
    EXPECT_NEAR(0.0, o.gyr[0], 1e-4);
  }
}

// The first call after a reset measures the whole attitude (about 0.5 rad
// about x) as one step, so dt sets the rate: beyond 27.78 rad/s, including
// rates clamped to 2000 deg/s, all three axes are zeroed.
TEST(SoftGyroTest, SanityLimitZeroesAllAxes) {
  const struct {
    float dt;
    bool zeroed;
  } cases[] = {{0.025f, false}, {0.0185f, false}, {0.0175f, true}, {0.005f, true}};
  for (const auto &c : cases) {
    sg_test::StartUp(kOdr);
    const Outputs o = Step(AxisAngle(1.0, 0.02, 0.03, 0.5), c.dt);
    ASSERT_EQ(1, o.result);
    if (c.zeroed) {
      for (float g : o.gyr) EXPECT_EQ(0.0f, g) << c.dt;
    } else {
      EXPECT_NEAR(0.5f / c.dt, o.gyr[0], 0.02f / c.dt) << c.dt;
    }
  }
}

// Refusals: a non-positive dt changes nothing; parallel vectors and an
// all-zero accelerometer fail after the state has moved on. The magnetometer
// filter takes its sample even when the accelerometer's is refused.
TEST(SoftGyroTest, RefusedSteps) {
  sg_test::StartUp(kOdr);
  Outputs o{};
  Vec3f acc{0.0f, 0.0f, 9.81f}, mag{0.0f, 20.0f, -40.0f};
  for (float dt : {0.0f, -0.02f}) {
    EXPECT_EQ(0, softgyro_calculation(&acc, &mag, o.gyr, o.rov, o.gra, o.lin, dt));
    EXPECT_EQ(1.0f, kmf_p);
    EXPECT_EQ(0, qvn_gyro_1st_data);
    EXPECT_EQ(9.81f, acc.z);
  }
  Vec3f zero_acc{0.0f, 0.0f, 0.0f};
  EXPECT_EQ(0, softgyro_calculation(&zero_acc, &mag, o.gyr, o.rov, o.gra, o.lin, kDt));
  EXPECT_EQ(3, qvn_gyro_1st_data);  // seeded from this sample
  EXPECT_NE(0.0f, mag_sort[1][0]);  // the field entered its rings all the same
  Vec3f up{0.0f, 0.0f, 9.81f}, down_field{0.0f, 0.0f, -40.0f};
  sg_test::StartUp(kOdr);
  EXPECT_EQ(0, softgyro_calculation(&up, &down_field, o.gyr, o.rov, o.gra, o.lin, kDt));
}

// Hostile input and host-written state: NaN, infinities, huge values, odd dt
// and counters. Nothing may crash or index outside a ring (run under the
// sanitizers in CI); every result is 0 or 1.
class HostileInputTest : public ::testing::TestWithParam<sg_test::SoftGyroFn> {};

TEST_P(HostileInputTest, SurvivesAnything) {
  const float pool[] = {NAN, INFINITY, -INFINITY, 0.0f, -0.0f, 1e30f, -1e-40f, 9.81f, -40.0f};
  const int16_t counts[] = {0, -1, 1, 32767, -32768, 7, 100};
  qvn_test::Lcg rng(11);
  sg_test::StartUp(kOdr);
  g_debounce_number_acc = 0x09;
  g_debounce_number_mag = 0x09;
  normal_threshold_control = 1;
  for (int k = 0; k < 3000; ++k) {
    float v[6];
    for (float &x : v) {
      const uint32_t n = rng.Next() >> 8;
      x = (n % 4 == 0) ? pool[(n / 4) % 9] : rng.Uniform() * 50.0f;
    }
    Vec3f acc{v[0], v[1], v[2]}, mag{v[3], v[4], v[5]};
    const uint32_t n = rng.Next() >> 8;
    if (n % 17 == 0) zdb_counter = counts[(n / 17) % 7];
    if (n % 19 == 0) qvn_algo_odr = counts[(n / 19) % 7];
    if (n % 23 == 0) acc_sort_num = counts[(n / 23) % 7];
    if (n % 29 == 0) mag_avg_cnt = counts[(n / 29) % 7];
    if (n % 31 == 0) qvn_gyro_1st_data = counts[(n / 31) % 7];
    const float dt = (n % 13 == 0) ? pool[(n / 13) % 9] : 0.02f;
    const int16_t result = sg_test::Run(GetParam(), acc, mag, dt).result;
    ASSERT_TRUE(result == 0 || result == 1);
  }
}

// Named by variant: a function address would change from process to process
// and CTest, which runs each case by name, would then find no case to run.
INSTANTIATE_TEST_SUITE_P(BothVariants, HostileInputTest,
                         ::testing::Values(softgyro_calculation, softgyro_orvel),
                         [](const ::testing::TestParamInfo<sg_test::SoftGyroFn> &i) {
                           return std::string(i.param == softgyro_calculation ? "plain"
                                                                              : "debounced");
                         });

// The whole no-gyroscope path through the entry table, both variants, at
// 50 Hz. The calibration's conditioning lags the field and may shift it by a
// few uT, bending the attitude by a few degrees that change during the turn:
// the rate is judged by its mean over the settled turn, within 0.1 rad/s per
// axis. At rest the rates are 0, gravity is exact, and the rotation vector
// is a unit quaternion that tilts the world's up onto gravity.
class EntryTableTest : public ::testing::TestWithParam<uint8_t> {};

FusionEvent Poll(QvnFusionGetFn get) {
  FusionEvent e{};
  get(&e);
  return e;
}

TEST_P(EntryTableTest, TurnThroughThePublicTable) {
  const QvnLibApiTable &api = MAG_LIB_API_INTERFACE;
  const ChipInfo info = {0, 0, 0};
  api.QVN_CaliInitLib(&info);
  g_slect_swgyro_mode = GetParam();
  g_debounce_number_acc = g_debounce_number_mag = 0x08;  // the debounced variant's motion
  g_zdb_acc_threshold_x = g_zdb_acc_threshold_y = g_zdb_acc_threshold_z = 0.05f;
  g_zdb_mag_threshold_x = g_zdb_mag_threshold_y = g_zdb_mag_threshold_z = 0.3f;
  const double w[3] = {0.5, -0.3, 0.6};
  const Mat3 turn = AxisAngle(w[0], w[1], w[2], sqrt(0.70) * kDt);
  Mat3 r = AxisAngle(1.0, 0.3, 0.2, -0.5);
  double mean[3] = {0.0, 0.0, 0.0};
  int64_t t = 1000000000;
  for (int k = 0; k < 1000; ++k, t += 20000000) {
    if (k >= 300 && k < 600) r = Mul(r, turn);
    Vec3f acc, mag;
    sg_test::Readings(r, &acc, &mag);
    const SensorEvent ea = {t, acc.x, acc.y, acc.z, 3}, em = {t, mag.x, mag.y, mag.z, 3};
    CaliResult out;
    api.QVN_CaliApiSetAccelData(&ea);
    api.QVN_CaliApiSetMagData(&em);
    api.QVN_DoCaliAPI(&em, &out);
    const FusionEvent gyr = Poll(api.QVN_FusionGetVirtualGyro);
    if (k >= 450 && k < 600) {
      for (int i = 0; i < 3; ++i) mean[i] += gyr.values[i] / 150.0;
    }
    if (k < 250 || (k >= 300 && k < 950)) continue;
    // At rest before the turn and after it (the fade included).
    for (int i = 0; i < 3; ++i) EXPECT_EQ(0.0f, fabsf(gyr.values[i])) << k;
    const FusionEvent gra = Poll(api.QVN_FusionGetGravity);
    const FusionEvent rv = Poll(api.QVN_FusionGetRotationVector);
    const float *q = rv.values;
    double g[3];
    sg_test::Gravity(r, g);
    // Third row of the rotation matrix of q: world up in sensor axes.
    const double up[3] = {2.0 * (q[0] * q[2] - q[3] * q[1]), 2.0 * (q[1] * q[2] + q[3] * q[0]),
                          1.0 - 2.0 * (q[0] * q[0] + q[1] * q[1])};
    EXPECT_NEAR(1.0, q[0] * q[0] + q[1] * q[1] + q[2] * q[2] + q[3] * q[3], 1e-5);
    for (int i = 0; i < 3; ++i) {
      EXPECT_NEAR(g[i], gra.values[i], 1e-3) << k;
      EXPECT_NEAR(g[i] / sg_test::kG, up[i], 1e-4) << k;
    }
  }
  for (int i = 0; i < 3; ++i) EXPECT_NEAR(w[i], mean[i], 0.1) << "axis " << i;
}

INSTANTIATE_TEST_SUITE_P(Variants, EntryTableTest, ::testing::Values(1, 2));

}  // namespace
