// Gyroscope-aided offset: a field rotated by the stored rates and intervals
// gives back the planted offset, degenerate rotations and intervals fail, the
// offset check rejects what it should, and the method handles full batches.
#include <math.h>

#include <gtest/gtest.h>

#include "cali/cali.h"
#include "support/log_capture.h"
#include "support/param_name.h"
#include "support/synthetic.h"

namespace {

// Earth field in the body frame at the first sample, uT (|B| = 43.74).
constexpr double kField[3] = {28.0, -20.0, 27.0};
const double kFieldNorm = sqrt(kField[0] * kField[0] + kField[1] * kField[1] + kField[2] * kField[2]);

struct Batch {
  float m[3][QVN_BATCH_CAPACITY];
  float g[3][QVN_BATCH_CAPACITY];
  float dt[QVN_BATCH_CAPACITY];
  double max_rate = 0.0;  // rad/s, largest |w| in the batch
};

// Rotates v in place by exp(-[w] h): a body turning at w sees the fixed field
// turn the other way.
void RotateBody(double v[3], const double w[3], double h) {
  const double n = sqrt(w[0] * w[0] + w[1] * w[1] + w[2] * w[2]);
  if (n == 0.0) return;
  const double k[3] = {w[0] / n, w[1] / n, w[2] / n};
  const double a = -n * h, c = cos(a), s = sin(a);
  const double kv = k[0] * v[0] + k[1] * v[1] + k[2] * v[2];
  const double cr[3] = {k[1] * v[2] - k[2] * v[1], k[2] * v[0] - k[0] * v[2], k[0] * v[1] - k[1] * v[0]};
  for (int i = 0; i < 3; ++i) v[i] = v[i] * c + cr[i] * s + k[i] * kv * (1.0 - c);
}

// m_i = R_i B + b, R_i built from the rates and intervals stored with sample
// i; rates wobble about all three axes. noise (uT) is uniform per coordinate.
Batch Rotating(int n, const double b[3], double h, float noise, bool single_axis = false) {
  Batch out{};
  qvn_test::Lcg lcg(3u);
  double field[3] = {kField[0], kField[1], kField[2]};
  for (int i = 0; i < n; ++i) {
    const double t = i * h;
    double w[3] = {0.9 * sin(0.8 * t) + 0.5, 1.1 * cos(1.3 * t) - 0.3, 0.8 * sin(1.7 * t + 0.4) + 0.4};
    if (single_axis) w[0] = w[1] = 0.0;
    if (i > 0) RotateBody(field, w, h);
    for (int a = 0; a < 3; ++a) {
      out.m[a][i] = static_cast<float>(field[a] + b[a]) + noise * lcg.Uniform();
      out.g[a][i] = static_cast<float>(w[a]);
    }
    out.dt[i] = static_cast<float>(h);
    out.max_rate = fmax(out.max_rate, sqrt(w[0] * w[0] + w[1] * w[1] + w[2] * w[2]));
  }
  return out;
}

int16_t Fit(const Batch &s, int16_t n, float hdi[3]) {
  return calculate_hdi_by_gyroscope(s.m[0], s.m[1], s.m[2], s.g[0], s.g[1], s.g[2], s.dt, n, hdi);
}

struct RecoveryCase {
  const char *name;
  double h;     // s
  float noise;  // uT
};

class GyroOffsetRecovery : public ::testing::TestWithParam<RecoveryCase> {};

TEST_P(GyroOffsetRecovery, ReturnsPlantedOffsetWithinDiscretisationError) {
  const double b[3] = {12.5, -30.0, 7.0};
  const Batch s = Rotating(300, b, GetParam().h, GetParam().noise);
  float hdi[3];
  ASSERT_EQ(Fit(s, 300, hdi), 1);
  // The backward difference with the current rate is first order: its error
  // is at most h/2 * |w| * |B| per equation.
  const double tol = 0.5 * GetParam().h * s.max_rate * kFieldNorm + GetParam().noise;
  for (int k = 0; k < 3; ++k) EXPECT_NEAR(hdi[k], b[k], tol) << "axis " << k;
}

INSTANTIATE_TEST_SUITE_P(Rates, GyroOffsetRecovery,
                         ::testing::Values(RecoveryCase{"step10ms", 0.01, 0.0f},
                                           RecoveryCase{"step20ms", 0.02, 0.0f},
                                           RecoveryCase{"step10ms_noise", 0.01, 0.3f},
                                           RecoveryCase{"step40ms_noise", 0.04, 0.3f}),
                         qvn_test::ByName());

TEST(GyroOffsetFit, DegenerateBatchesFail) {
  const double b[3] = {1, 2, 3};
  float hdi[3] = {9, 9, 9};
  // Rotation about z only: the z diagonal sums to exactly 0.
  EXPECT_EQ(Fit(Rotating(100, b, 0.02, 0.0f, true), 100, hdi), 0);
  // A zero or negative interval after the first sample fails the fit ...
  for (float bad : {0.0f, -0.01f}) {
    Batch s = Rotating(100, b, 0.02, 0.0f);
    s.dt[57] = bad;
    EXPECT_EQ(Fit(s, 100, hdi), 0) << bad;
  }
  // ... the first sample's interval is never read.
  Batch s = Rotating(100, b, 0.02, 0.0f);
  s.dt[0] = -1.0f;
  EXPECT_EQ(Fit(s, 100, hdi), 1);
  // No samples: the matrix is all zero.
  EXPECT_EQ(Fit(s, 0, hdi), 0);
  EXPECT_EQ(Fit(s, -4, hdi), 0);
}

// ------------------------------------------------------------ offset check

TEST(OffsetCheck, AcceptsTheCentreAndNamesTheStageOfEachRejection) {
  qvn_MagCal_initial(0);  // field range 2200, radius 15..70, width 4, 20 % outliers
  qvn_test::LogCapture log;
  float x[300], y[300], z[300], radius = -1.0f;
  qvn_test::ToPlanes(qvn_test::EllipsoidPoints(100, 45, 45, 45, 5, -6, 7), x, y, z);
  struct Case {
    float hdi[3];
    uint16_t n;
    int16_t valid, stage;
  } const cases[] = {
      {{5, -6, 7}, 0, 0, 111},      // empty batch
      {{2201, 0, 0}, 100, 0, 222},  // offset beyond full scale, no radius computed
      {{25, -6, 7}, 100, 0, 333},   // far more than 20 % outliers
      {{5, -6, 7}, 100, 1, 555},
  };
  for (const Case &c : cases) {
    EXPECT_EQ(fss_hdi_is_valid(x, y, z, c.n, c.hdi, &radius), c.valid) << c.stage;
    EXPECT_EQ(qvn_cali_log[0], c.stage);
  }
  EXPECT_NEAR(radius, 45.0f, 1e-3f);
  EXPECT_EQ(qvn_cali_log[6], 20);  // 0.2 x 100 allowed outliers
  // The line prints the tolerance, not the mean.
  EXPECT_EQ(log.CountExact("QVNlib: radius:4.000000,count:0,num:100\r\n"), 1);
  EXPECT_EQ(log.CountExact("QVNlib: hdi[0-2]:5.000000,-6.000000,7.000000\r\n"), 1);  // not for n = 0
  mag_radius_max = 44.0f;          // the mean distance is now too large
  EXPECT_EQ(fss_hdi_is_valid(x, y, z, 100, cases[3].hdi, &radius), 0);
}

// ------------------------------------------------------------------ method

int16_t FeedMethod(const Batch &s, int n, float hdi[3]) {
  int16_t code = -1;
  for (int i = 0; i < n; ++i) {
    const float m[3] = {s.m[0][i], s.m[1][i], s.m[2][i]};
    const float g[3] = {s.g[0][i], s.g[1][i], s.g[2][i]};
    code = mag_cali_mag_gyr(m, g, hdi, s.dt[i]);
    if (i + 1 < n && code != 1) return -1;
  }
  return code;
}

TEST(GyroMethod, RotatingBatchCalibratesWithTheRotationLevel) {
  qvn_MagCal_initial(0);
  dsc_data_size = 200;
  const double b[3] = {12.5, -30.0, 7.0};
  float hdi[3] = {0, 0, 0};
  ASSERT_EQ(FeedMethod(Rotating(200, b, 0.01, 0.2f), 200, hdi), 0);
  for (int k = 0; k < 3; ++k) EXPECT_NEAR(hdi[k], b[k], 1.0) << k;
  EXPECT_EQ(mag_quad_accuracy, qvn_debug_log[3]);  // the rotation level
  EXPECT_GE(mag_quad_accuracy, 1);
  EXPECT_EQ(dsc_data_num, 0);  // the whole batch goes after a success
  EXPECT_NEAR(cali_radius, kFieldNorm, 0.5);
}

TEST(GyroMethod, StillBatchReturnsTwoWithoutFitting) {
  dsc_data_size = 20;
  const double b[3] = {1, 2, 3};
  Batch s = Rotating(20, b, 0.02, 0.0f);
  for (auto &plane : s.g) {
    for (float &w : plane) w = 0.0f;
  }
  float hdi[3] = {-9, -9, -9};
  EXPECT_EQ(FeedMethod(s, 20, hdi), 2);
  EXPECT_EQ(qvn_debug_log[2], 111);  // the fit stage was never entered
  EXPECT_EQ(hdi[0], -9.0f);
  EXPECT_EQ(dsc_data_num, 0);  // every sample was quiet: trimmed to nothing
}

}  // namespace
