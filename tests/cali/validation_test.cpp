// Result validation and method dispatch: the radius spread rule, the matrix
// shape, stage codes and the dispatcher's unconditional lines.
#include <gtest/gtest.h>
#include <math.h>

#include <vector>

#include "cali/cali.h"
#include "support/log_capture.h"
#include "support/synthetic.h"

namespace {

constexpr float kIdentity[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
constexpr float kHdi[3] = {12.0f, -30.0f, 7.0f};

// 300 samples at 40 uT from kHdi, the first `outliers` at 50 uT.
struct Batch {
  float x[300], y[300], z[300];
  explicit Batch(int outliers) {
    const std::vector<qvn_test::Point3> u = qvn_test::FibonacciSphere(300);
    for (int i = 0; i < 300; ++i) {
      const float r = (i < outliers) ? 50.0f : 40.0f;
      x[i] = kHdi[0] + r * u[i].x, y[i] = kHdi[1] + r * u[i].y, z[i] = kHdi[2] + r * u[i].z;
    }
  }
  int16_t Valid(uint16_t n, const float *hdi = kHdi, const float *sfi = kIdentity) {
    mag_field_range = 2200.0f;
    set_mag_cali_radius_range(70.0f, 15.0f, 4.0f, 0.2f);
    return dsc_sfi_hdi_is_valid(x, y, z, n, hdi, sfi, 40.0f);
  }
};

TEST(Validation, OutlierShareAtTheRateLimit) {
  // 60 of 300 move the mean to 42: inliers are 2 uT off, outliers 8 uT.
  EXPECT_EQ(Batch(60).Valid(300), 1);
  EXPECT_EQ(mag_quad_accuracy, 3);
  EXPECT_EQ(qvn_cali_log[0], 555);
  EXPECT_EQ(Batch(61).Valid(300), 0);
  EXPECT_EQ(mag_cali_check_err, 4);
  EXPECT_EQ(qvn_cali_log[0], 444);
  EXPECT_EQ(qvn_cali_log[3], 61);
}

TEST(Validation, StagesOfRejection) {
  Batch b(0);
  const float far[3] = {12.0f, -2200.5f, 7.0f};
  EXPECT_EQ(b.Valid(300, far), 0);
  EXPECT_EQ(qvn_cali_log[0], 222);
  const int tiny[] = {1, 2, 5};  // the upper triangle must be exactly zero
  for (int e : tiny) {
    float sfi[9];
    for (int i = 0; i < 9; ++i) sfi[i] = kIdentity[i];
    sfi[e] = 1e-9f;
    EXPECT_EQ(b.Valid(300, kHdi, sfi), 0) << e;
    EXPECT_EQ(mag_cali_check_err, 3);
    EXPECT_EQ(qvn_cali_log[0], 333);
  }
  EXPECT_EQ(b.Valid(65535), 0);  // read as -1: an empty batch
  EXPECT_EQ(mag_cali_check_err, 1);
  EXPECT_EQ(b.Valid(1000), 1);  // beyond the planes: the 300 samples held
}

TEST(Dispatch, UnknownModeReturns255AndStillLogs) {
  g_en_mtkScpLog = 0;
  qvn_test::LogCapture log;
  qvn_debug_log[2] = 444;
  mag_quad_accuracy = 3;
  const float m[3] = {1, 2, 3}, g[3] = {0, 0, 0};
  float sfi[9], hdi[3];
  EXPECT_EQ(mag_calibration(m, g, 3, sfi, hdi, 1, 0.02f), 255);
  EXPECT_EQ(mag_quad_accuracy, 0);
  ASSERT_EQ(log.lines().size(), 4u);  // the four lines ignore the log switch
  EXPECT_EQ(log.lines()[0].text,
            "QVNlib: qvn_debug_log[0], qvn_debug_log[1], qvn_debug_log[2]:0,0,444 \r\n");
  EXPECT_EQ(log.lines()[3].priority, 3);
}

}  // namespace
