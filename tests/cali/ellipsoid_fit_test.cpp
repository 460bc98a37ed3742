// Ellipsoid fit and oval method: planted shapes are recovered from exact and
// noisy points, degenerate clouds fail with their codes, and the method's
// codes and outputs follow each stage.
#include <math.h>

#include <vector>

#include <gtest/gtest.h>

#include "cali/cali.h"
#include "support/param_name.h"
#include "support/synthetic.h"

namespace {

using qvn_test::Point3;

// Points c + S^-1 (r u) for a lower-triangular S of unit determinant, so S
// maps them onto a sphere of radius r; noise (uT) is uniform per coordinate.
std::vector<Point3> Shaped(int n, const double *s, double r, const double *c, float noise) {
  qvn_test::Lcg lcg(7u);
  std::vector<Point3> pts;
  for (const Point3 &u : qvn_test::FibonacciSphere(n)) {
    const double a = r * u.x / s[0];
    const double b = (r * u.y - s[3] * a) / s[4];
    const double d = (r * u.z - s[6] * a - s[7] * b) / s[8];
    pts.push_back(Point3{static_cast<float>(c[0] + a) + noise * lcg.Uniform(),
                         static_cast<float>(c[1] + b) + noise * lcg.Uniform(),
                         static_cast<float>(c[2] + d) + noise * lcg.Uniform()});
  }
  return pts;
}

// A one-sheet hyperboloid about (cx, cy, 0): its shape matrix has a
// negative axis.
std::vector<Point3> Hyperboloid(int n, float cx, float cy) {
  std::vector<Point3> pts;
  const std::vector<Point3> d = qvn_test::FibonacciSphere(n);
  for (int i = 0; i < n; ++i) {
    const float rho = 45.0f * sqrtf(1.0f + d[i].z * d[i].z), phi = 2.39996f * static_cast<float>(i);
    pts.push_back(Point3{rho * cosf(phi) + cx, rho * sinf(phi) + cy, 20.0f * d[i].z});
  }
  return pts;
}

const double kAxS = cbrt(50.0 * 40.0 * 30.0);  // 39.149 uT
const double kK = cbrt(1.0 / (1.03 * 0.98));   // normalises the tilted shape
struct Shape {
  const char *name;
  double s[9], r, c[3];
  float noise;
} const kShapes[] = {
    {"sphere", {1, 0, 0, 0, 1, 0, 0, 0, 1}, 45.0, {2, -3, 1}, 0.0f},
    {"axis_aligned", {kAxS / 50, 0, 0, 0, kAxS / 40, 0, 0, 0, kAxS / 30}, kAxS, {5, 5, 5}, 0.0f},
    {"tilted", {1.03 * kK, 0, 0, 0.05 * kK, 0.98 * kK, 0, -0.08 * kK, 0.06 * kK, kK}, 42.0, {3, -2, 4}, 0.0f},
    {"tilted_noisy", {1.03 * kK, 0, 0, 0.05 * kK, 0.98 * kK, 0, -0.08 * kK, 0.06 * kK, kK}, 42.0, {3, -2, 4}, 0.5f},
};

class EllipsoidRecovery : public ::testing::TestWithParam<Shape> {};

TEST_P(EllipsoidRecovery, RecoversShapeCentreAndScale) {
  const Shape &c = GetParam();
  float x[300], y[300], z[300], hdi[3], sfi[9], scale = 0.0f;
  qvn_test::ToPlanes(Shaped(300, c.s, c.r, c.c, c.noise), x, y, z);
  ASSERT_EQ(calculate_magnetic_sfi_hdi(x, y, z, 300, hdi, sfi, &scale), 0);
  const bool noisy = c.noise > 0.0f;
  for (int k = 0; k < 3; ++k) EXPECT_NEAR(hdi[k], c.c[k], noisy ? 0.3 : 1e-3) << k;
  for (int k = 0; k < 9; ++k) EXPECT_NEAR(sfi[k], c.s[k], noisy ? 0.01 : 1e-4) << k;
  EXPECT_NEAR(scale, c.r, noisy ? 0.3 : 1e-3);
  // The upper triangle is exactly zero (validation insists on it).
  EXPECT_TRUE(sfi[1] == 0.0f && sfi[2] == 0.0f && sfi[5] == 0.0f);
}

INSTANTIATE_TEST_SUITE_P(Shapes, EllipsoidRecovery, ::testing::ValuesIn(kShapes), qvn_test::ByName());

TEST(EllipsoidFit, DegenerateCloudsFail) {
  float x[300], y[300], z[300], hdi[3], sfi[9], scale = -1.0f;
  const std::vector<Point3> d = qvn_test::FibonacciSphere(200);
  for (int i = 0; i < 200; ++i) x[i] = 40 * d[i].x, y[i] = 40 * d[i].y, z[i] = 0.0f;
  EXPECT_EQ(calculate_magnetic_sfi_hdi(x, y, z, 0, hdi, sfi, &scale), 1);
  EXPECT_EQ(calculate_magnetic_sfi_hdi(x, y, z, 65535, hdi, sfi, &scale), 1);  // -1 signed
  EXPECT_EQ(calculate_magnetic_sfi_hdi(x, y, z, 200, hdi, sfi, &scale), 2);    // planar
  qvn_test::ToPlanes(Hyperboloid(200, 0.0f, 0.0f), x, y, z);
  EXPECT_EQ(calculate_magnetic_sfi_hdi(x, y, z, 200, hdi, sfi, &scale), 3);
  EXPECT_EQ(scale, -1.0f);
}

// ---------------------------------------------------------------- method

struct OvalCase {
  const char *name;
  int shape;             // index into kShapes, or -1 for a hyperboloid
  double radius, centre[3];
  int16_t odr;
  uint16_t flag;
  int16_t code, stage;   // result and qvn_debug_log[2]
  bool sfi_written;
} const kOvalCases[] = {
    {"sphere_30hz", 0, 45, {10, -20, 5}, 30, 0, 0, 444, true},
    {"sphere_10hz_stops_at_sphere", 0, 45, {10, -20, 5}, 10, 0, 0, 333, false},
    {"given_offset_10hz", 0, 45, {10, -20, 5}, 10, 1, 0, 0, false},
    {"radius_out_of_range", 0, 80, {1, 2, 3}, 30, 0, 4, 222, false},
    {"axis_aligned_rejected", 1, kAxS, {5, 5, 5}, 30, 0, 6, 444, false},
    {"tilted_device_bounds", 2, 42, {30, -25, 12}, 30, 0, 0, 444, true},
    {"hyperboloid", -1, 45, {3, -4, 0}, 30, 0, 5, 333, false},
};

class OvalMethod : public ::testing::TestWithParam<OvalCase> {};

TEST_P(OvalMethod, CodesAndOutputs) {
  const OvalCase &c = GetParam();
  qvn_MagCal_initial(0);  // the device's field range, radius limits and matrix bounds
  g_en_mtkScpLog = 0, dsc_data_size = 100, qvn_algo_odr = c.odr, cali_radius = 33.0f;
  const std::vector<Point3> pts =
      c.shape >= 0 ? Shaped(100, kShapes[c.shape].s, c.radius, c.centre, c.shape == 2 ? 0.3f : 0.0f)
                   : Hyperboloid(100, 3.0f, -4.0f);
  float sfi[9] = {7, 7, 7, 7, 7, 7, 7, 7, 7}, hdi[3] = {-99, -99, -99};
  int16_t code = -1;
  for (size_t i = 0; i < pts.size(); ++i) {
    const float m[3] = {pts[i].x, pts[i].y, pts[i].z};
    code = mag_cali_mag_oval(m, sfi, hdi, c.flag);
    if (i + 1 < pts.size()) {
      ASSERT_EQ(code, 1) << i;
    }
  }
  EXPECT_EQ(code, c.code);
  EXPECT_EQ(qvn_debug_log[2], c.stage);
  EXPECT_EQ(dsc_data_num, 50);  // halved after every attempt
  EXPECT_EQ(sfi[0] != 7.0f, c.sfi_written);
  // The sphere (or ellipsoid) centre is published from stage 333 on.
  const bool centred = c.stage >= 333 && c.shape != 1 && c.shape != -1;
  for (int k = 0; k < 3; ++k) {
    if (centred) {
      EXPECT_NEAR(hdi[k], c.centre[k], c.shape == 2 ? 0.3 : 1e-3) << k;
    }
    if (c.stage < 333) {
      EXPECT_EQ(hdi[k], -99.0f);
    }
  }
  if (c.code == 0) {
    const bool keeps = c.flag == 1;
    EXPECT_NEAR(cali_radius, keeps ? 33.0 : c.radius, keeps ? 0.0 : 0.3);
    EXPECT_EQ(mag_quad_accuracy, 3);
  }
  if (c.code == 6) {
    EXPECT_EQ(mag_cali_check_err, 3);  // 0.783 is below the xx minimum
  }
}

INSTANTIATE_TEST_SUITE_P(Cases, OvalMethod, ::testing::ValuesIn(kOvalCases), qvn_test::ByName());

}  // namespace
