// Batch magnetometer calibration: planted offsets and soft-iron matrices come
// back from noisy samples (in uT), disturbed spans and wild samples are left
// out, and recordings that cannot determine the fit say why.
#include "reference/mag_calibration.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "reference/sim_imu.h"

namespace {

using qvn_reference::CalibrateMagnetometer;
using qvn_reference::MagCalOptions;
using qvn_reference::MagCalResult;
using qvn_reference::MagSample;

struct Cloud {
  enum Kind { kSphere, kRing, kStill } kind;
  double radius;
  Eigen::Vector3d offset;
  Eigen::Matrix3d soft;  // raw = soft * field + offset, det 1
  double noise;
  double disturb_fraction;  // a span of this share of the samples gets +30 uT
  int wild;                 // isolated samples of 500 uT
};

// Fibonacci directions (sphere), a horizontal ring, or one direction, at 50 Hz.
std::vector<MagSample> Make(const Cloud &c) {
  qvn_sim::Lcg rng(3);
  const int n = 1500;
  std::vector<MagSample> out;
  const size_t span_from = n / 3, span_to = span_from + static_cast<size_t>(c.disturb_fraction * n);
  for (int i = 0; i < n; ++i) {
    Eigen::Vector3d u;
    if (c.kind == Cloud::kSphere) {
      double z = 1.0 - 2.0 * (i + 0.5) / n, phi = i * 2.399963229728653;
      u = Eigen::Vector3d(std::sqrt(1 - z * z) * std::cos(phi),
                          std::sqrt(1 - z * z) * std::sin(phi), z);
    } else if (c.kind == Cloud::kRing) {
      double phi = i * 6.283185307179586 / 200;
      u = Eigen::Vector3d(0.5 * std::cos(phi), 0.5 * std::sin(phi), -0.866);
    } else {
      u = Eigen::Vector3d(0.3, 0.5, -0.81).normalized();
    }
    Eigen::Vector3d raw = c.soft * (c.radius * u) + c.offset + rng.Gauss3(c.noise);
    const size_t k = static_cast<size_t>(i);
    if (k >= span_from && k < span_to) raw += Eigen::Vector3d(30, 0, 0);
    if (c.wild > 0 && i % (n / c.wild) == 7) raw = Eigen::Vector3d(500, 500, 500);
    out.push_back({1000000000 + 20000000LL * i, raw.x(), raw.y(), raw.z()});
  }
  return out;
}

Eigen::Matrix3d Soft() {
  Eigen::Matrix3d m;
  m << 1.06, 0.04, -0.02, 0.04, 0.95, 0.03, -0.02, 0.03, 1.0;
  return m / std::cbrt(m.determinant());
}

struct FitCase {
  const char *name;
  Cloud cloud;
  double offset_tol_ut, soft_tol;
  bool expect_soft;
};

class Recovery : public ::testing::TestWithParam<FitCase> {};

TEST_P(Recovery, FindsThePlantedCalibration) {
  const FitCase &c = GetParam();
  std::vector<MagSample> s = Make(c.cloud);
  MagCalResult r = CalibrateMagnetometer(s);
  ASSERT_TRUE(r.ok) << r.error;
  EXPECT_EQ(r.soft_iron_fitted, c.expect_soft);
  for (int k = 0; k < 3; ++k)
    EXPECT_NEAR(r.offset[static_cast<size_t>(k)], c.cloud.offset[k], c.offset_tol_ut);
  if (c.expect_soft) {
    for (int k = 0; k < 9; ++k)
      EXPECT_NEAR(r.soft_iron[static_cast<size_t>(k)], c.cloud.soft(k / 3, k % 3), c.soft_tol);
  }
  EXPECT_NEAR(r.radius, c.cloud.radius, 0.5);
  EXPECT_LT(r.residual_rms, 1.5 * c.cloud.noise * std::sqrt(3.0) + 0.05);
  // Every disturbed or wild sample is out; the calibrated field of an inlier
  // has the radius.
  size_t disturbed_in = 0;
  for (size_t i = 0; i < s.size(); ++i) {
    std::array<double, 3> f = r.Apply(s[i].x, s[i].y, s[i].z);
    double len = std::sqrt(f[0] * f[0] + f[1] * f[1] + f[2] * f[2]);
    if (std::fabs(len - c.cloud.radius) > 10) disturbed_in += r.inlier[i];
  }
  EXPECT_EQ(disturbed_in, 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Clouds, Recovery,
    ::testing::Values(FitCase{"clean_sphere",
                              {Cloud::kSphere, 45, {60, -50, 410}, Soft(), 0.3, 0, 0},
                              0.1,
                              0.005,
                              true},
                      FitCase{
                          "identity_soft_iron",
                          {Cloud::kSphere, 30, {-5, 8, 1}, Eigen::Matrix3d::Identity(), 0.3, 0, 0},
                          0.1,
                          0.005,
                          true},
                      FitCase{"disturbed_span_and_wild_samples",
                              {Cloud::kSphere, 45, {60, -50, 410}, Soft(), 0.3, 0.1, 10},
                              0.2,
                              0.01,
                              true}),
    [](const ::testing::TestParamInfo<FitCase> &i) { return std::string(i.param.name); });

TEST(MagCalibration, RefusesWhatTheSamplesCannotDetermine) {
  // A still phone: nothing to fit.
  MagCalResult still = CalibrateMagnetometer(
      Make({Cloud::kStill, 45, {1, 2, 3}, Eigen::Matrix3d::Identity(), 0.3, 0, 0}));
  EXPECT_FALSE(still.ok);
  EXPECT_NE(still.error.find("too few directions"), std::string::npos) << still.error;
  // A ring: no soft iron, and the radius runs free along the ring's axis
  // unless the field strength is known.
  std::vector<MagSample> ring =
      Make({Cloud::kRing, 45, {10, 20, 30}, Eigen::Matrix3d::Identity(), 0.3, 0, 0});
  MagCalResult free = CalibrateMagnetometer(ring);
  EXPECT_FALSE(free.soft_iron_fitted);
  MagCalOptions known;
  known.prior_radius_ut = 45;
  known.prior_radius_sigma_ut = 0.2;
  MagCalResult pinned = CalibrateMagnetometer(ring, known);
  ASSERT_TRUE(pinned.ok) << pinned.error;
  EXPECT_FALSE(pinned.soft_iron_fitted);
  EXPECT_NEAR(pinned.offset[0], 10, 0.3);
  EXPECT_NEAR(pinned.offset[1], 20, 0.3);
  EXPECT_NEAR(pinned.offset[2], 30, 1.0);
  // Too few samples, and non-finite ones, are reported, not fitted.
  std::vector<MagSample> few(ring.begin(), ring.begin() + 10);
  EXPECT_FALSE(CalibrateMagnetometer(few).ok);
  std::vector<MagSample> nan =
      Make({Cloud::kSphere, 45, {0, 0, 0}, Eigen::Matrix3d::Identity(), 0.3, 0, 0});
  nan[5].x = std::numeric_limits<double>::quiet_NaN();
  MagCalResult with_nan = CalibrateMagnetometer(nan);
  ASSERT_TRUE(with_nan.ok);
  EXPECT_FALSE(with_nan.inlier[5]);
}

}  // namespace
