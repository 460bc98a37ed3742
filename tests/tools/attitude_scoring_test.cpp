// The scoring of the tools against answers known exactly: the frame and angle
// order that each output is read with agree with the library's own angle
// routines; the heading/tilt split separates a yaw offset from a tilt; and
// statistics, offset and lag come back from estimates built from the truth.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <ostream>
#include <vector>

#include "core/attitude.h"
#include "core/scoring.h"
#include "fusion/fusion.h"

namespace {

using namespace qvn_tools;

constexpr double kDeg = 57.29577951308232;
constexpr double kFloatAngleTolDeg = 2e-3;  // float32 angle routines
const V3 kX{1, 0, 0}, kY{0, 1, 0}, kZ{0, 0, 1};

// Phone-to-world attitude from a heading (clockwise, degrees) and a tilt
// axis/angle in the phone frame.
Quat Attitude(double heading_deg, V3 tilt_axis, double tilt_deg) {
  return Mul(AxisAngle(kZ, -heading_deg / kDeg), AxisAngle(tilt_axis, tilt_deg / kDeg));
}

V3 Unit(V3 v) { return (1.0 / Norm(v)) * v; }

// The gyroscope path's angles (radians) of an attitude, by the library.
void GyroPathAngles(Quat q, float rad[3]) {
  const float qf[4] = {static_cast<float>(q.w), static_cast<float>(q.x), static_cast<float>(q.y),
                       static_cast<float>(q.z)};
  quaternion2euler(qf, rad);
}

void ExpectSameAttitude(Quat est, Quat truth, double tol_deg) {
  double h = 0, t = 0;
  HeadingTiltError(est, truth, &h, &t);
  EXPECT_NEAR(h, 0.0, tol_deg);
  EXPECT_NEAR(t, 0.0, tol_deg);
}

struct AttitudeCase {
  double heading;
  V3 axis;
  double tilt;
};

void PrintTo(const AttitudeCase &c, std::ostream *os) {
  *os << "heading " << c.heading << ", tilt " << c.tilt << " about (" << c.axis.x << ", "
      << c.axis.y << ", " << c.axis.z << ")";
}

const AttitudeCase kAttitudes[] = {
    {0, kX, 0},           {37, kX, 25},           {200, kY, -40}, {300, kX, -70},
    {123, kY, 80},        {10, kX, 160},          {250, kY, 175}, {80, kX, 100},
    {330, {1, 1, 0}, 60}, {170, {1, -2, 0}, 120}, {45, kX, -120}, {95, {0, 1, 1}, 50}};

class AttitudeConvention : public ::testing::TestWithParam<AttitudeCase> {};

// The gyroscope path reads the angles off Qfusion with quaternion2euler: the
// documented order rebuilds the very quaternion, in any attitude. The Euler
// rotation vector mirrors the azimuth: its stated convention matches the
// library's routine, and against the phone's attitude it is off by twice the
// azimuth in heading and by nothing in tilt.
TEST_P(AttitudeConvention, GyroPathAnglesAndEulerRotationVector) {
  const AttitudeCase &c = GetParam();
  Quat q = Attitude(c.heading, Unit(c.axis), c.tilt);
  float rad[3];
  GyroPathAngles(q, rad);
  ExpectSameAttitude(FromGyroPathAngles(rad[0] * kDeg, rad[1] * kDeg, rad[2] * kDeg), q,
                     kFloatAngleTolDeg);
  double a = rad[0] * kDeg < 0 ? rad[0] * kDeg + 360 : rad[0] * kDeg;
  qvn_ori[0] = static_cast<float>(a);
  qvn_ori[1] = static_cast<float>(rad[1] * kDeg);
  qvn_ori[2] = static_cast<float>(rad[2] * kDeg);
  float rv[4];
  qvn_get_rotation_vector_euler(rv);
  ExpectSameAttitude(FromRotationVector(rv), EulerRotationVector(qvn_ori[0], qvn_ori[1], qvn_ori[2]),
                     0.01);
  double h = 0, t = 0;
  HeadingTiltError(FromRotationVector(rv), q, &h, &t);
  EXPECT_NEAR(WrapDeg(h + 2 * a), 0.0, 0.01);
  EXPECT_NEAR(t, 0.0, 0.01);
}

INSTANTIATE_TEST_SUITE_P(Attitudes, AttitudeConvention, ::testing::ValuesIn(kAttitudes));

// The compass path levels the field about y by the roll, then about x by the
// pitch, face up and face down (with the driver's pitch fold): for a phone
// tilted about one of its axes, the angles it computes rebuild the attitude.
TEST(CompassPath, LevelledAnglesRebuildSingleAxisTilts) {
  const V3 field_world{0, 20, -40};
  const AttitudeCase cases[] = {{0, kX, 0},     {60, kX, 35},   {150, kX, -80},  {220, kY, 50},
                                {300, kY, -75}, {20, kX, 120},  {100, kX, -135}, {250, kX, 170},
                                {75, kY, 180},  {330, kX, 150}, {200, kY, 140}};
  for (const AttitudeCase &c : cases) {
    Quat q = Attitude(c.heading, c.axis, c.tilt);
    V3 g = RotateInverse(q, {0, 0, 9.8}), m = RotateInverse(q, field_world);
    const float acc[3] = {static_cast<float>(g.x), static_cast<float>(g.y),
                          static_cast<float>(g.z)};
    const float mag[3] = {static_cast<float>(m.x), static_cast<float>(m.y),
                          static_cast<float>(m.z)};
    float rad[3];
    calculate_ypr_angle(acc, mag, rad);
    double a = rad[0] * kDeg, p = rad[1] * kDeg, r = rad[2] * kDeg;
    // The fusion driver's fold of the no-gyroscope path.
    if (std::fabs(p) > 90 && std::fabs(p) < 140) a -= 180;
    if (a < 0) a += 360;
    SCOPED_TRACE(::testing::Message() << "heading " << c.heading << " tilt " << c.tilt);
    ExpectSameAttitude(FromCompassPathAngles(a, p, r), q, 0.01);
  }
}

TEST(HeadingTilt, SplitsAYawOffsetFromATilt) {
  const Quat truth = Attitude(70, Unit({1, 2, 0}), 65);
  const struct {
    double yaw_deg, tilt_deg;
    V3 world_axis;
  } cases[] = {{0, 0, kX},  {25, 0, kX},        {-170, 0, kX},
               {0, 12, kX}, {0, 30, {1, 1, 0}}, {40, 20, kY}};
  for (const auto &c : cases) {
    // Error applied in the world frame: first a tilt about a horizontal axis,
    // then a turn about up (clockwise = positive heading error).
    Quat e =
        Mul(AxisAngle(kZ, -c.yaw_deg / kDeg), AxisAngle(Unit(c.world_axis), c.tilt_deg / kDeg));
    double h = 0, t = 0;
    HeadingTiltError(Mul(e, truth), truth, &h, &t);
    EXPECT_NEAR(h, c.yaw_deg, 1e-9);
    EXPECT_NEAR(t, c.tilt_deg, 1e-9);
    // q and -q are one attitude.
    Quat n = Mul(e, truth);
    HeadingTiltError({-n.w, -n.x, -n.y, -n.z}, truth, &h, &t);
    EXPECT_NEAR(h, c.yaw_deg, 1e-9);
  }
}

// A truth turning steadily with a nodding tilt; the estimate sees it late by
// a known lag, turned by a constant yaw and with a known heading wobble.
TEST(Scoring, RecoversOffsetStatisticsAndLag) {
  const int64_t kStepNs = 10000000, kLagNs = 120000000;
  const double kOffsetDeg = 33.0, kWobbleDeg = 4.0;
  auto truth_at = [](double s) { return Attitude(20 * s, kX, 30 * std::sin(1.3 * s)); };
  OrientationTruth truth;
  std::vector<std::pair<int64_t, Quat>> samples;
  for (int64_t t = 0; t <= 60000000000LL; t += kStepNs) samples.push_back({t, truth_at(t * 1e-9)});
  truth.SetSamples(samples);
  std::vector<Estimate> est;
  for (int64_t t = 1000000000; t < 59000000000LL; t += kStepNs) {
    // Six whole periods over the window, so that the wobble has no mean.
    double wobble = kWobbleDeg * std::sin(2 * M_PI * 6 / 58.0 * (t * 1e-9 - 1));
    Quat q = Mul(AxisAngle(kZ, -(kOffsetDeg + wobble) / kDeg), truth_at((t - kLagNs) * 1e-9));
    est.push_back({t, q, true});
  }
  est[10].valid = false;
  ScoreWindow w;
  w.lag_ns = kLagNs;
  ErrorStats s = ScoreEstimates(est, truth, w);
  EXPECT_EQ(s.invalid, 1u);
  EXPECT_EQ(s.scored, est.size() - 1);
  EXPECT_NEAR(s.offset_deg, kOffsetDeg, 0.05);
  EXPECT_NEAR(s.heading_rms, kWobbleDeg / std::sqrt(2.0), 0.05);
  EXPECT_NEAR(s.heading_max, kWobbleDeg, 0.05);
  EXPECT_NEAR(s.heading_p95, kWobbleDeg * std::sin(0.95 * 1.5707963), 0.01);
  EXPECT_NEAR(s.tilt_rms, 0.0, 1e-6);
  // Scored without the lag, the nodding shows as tilt; the lag search finds it.
  ScoreWindow none;
  EXPECT_GT(ScoreEstimates(est, truth, none).tilt_rms, 1.0);
  LagResult lag = EstimateLag(est, truth, none);
  ASSERT_TRUE(lag.found);
  EXPECT_NEAR(lag.lag_ms, kLagNs / 1e6, 1.0);
  EXPECT_FALSE(IsConstant(est));
}

}  // namespace
