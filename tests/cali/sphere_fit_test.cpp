// Sphere fit and the ball method: recovery of a planted centre, degenerate
// batches, result codes and thinning.
#include <gtest/gtest.h>

#include <vector>

#include "cali/cali.h"
#include "support/synthetic.h"

namespace {

using qvn_test::EllipsoidPoints;

TEST(SphereFit, RecoversCentreAndRadius) {
  float x[300], y[300], z[300], o[3], radius = 0.0f;
  qvn_test::ToPlanes(EllipsoidPoints(300, 45.0f, 45.0f, 45.0f, 10.0f, -20.0f, 5.0f), x, y, z);
  ASSERT_EQ(calculate_sphere_offset(x, y, z, 300, o, &radius), 1);
  EXPECT_NEAR(o[0], 10.0f, 0.01f);
  EXPECT_NEAR(o[1], -20.0f, 0.01f);
  EXPECT_NEAR(o[2], 5.0f, 0.01f);
  EXPECT_NEAR(radius, 45.0f, 0.01f);
  o[0] = 7.0f;
  EXPECT_EQ(calculate_sphere_offset(x, y, z, 0, o, &radius), 0);  // all sums 0: singular
  EXPECT_EQ(o[0], 7.0f);
}

TEST(BallMethod, CodesAndHalving) {
  g_en_mtkScpLog = 0;
  mag_field_range = 2200.0f;
  set_mag_cali_radius_range(70.0f, 15.0f, 4.0f, 0.2f);
  dsc_data_size = 40;
  // A sphere, one too large for the limits, and a flat batch (z = 0).
  const float radius[] = {45.0f, 80.0f, 45.0f}, z_scale[] = {1.0f, 1.0f, 0.0f};
  const int16_t codes[] = {0, 6, 4}, stages[] = {444, 444, 333};
  for (int c = 0; c < 3; ++c) {
    dsc_data_num = 0;
    float hdi[3] = {9.0f, 9.0f, 9.0f};
    const std::vector<qvn_test::Point3> pts =
        EllipsoidPoints(40, radius[c], radius[c], radius[c] * z_scale[c], 10.0f, -20.0f, 0.0f);
    int16_t code = -1;
    for (const qvn_test::Point3 &p : pts) {
      const float m[3] = {p.x, p.y, p.z};
      code = mag_cali_mag_ball(m, hdi);
    }
    EXPECT_EQ(code, codes[c]) << "case " << c;
    EXPECT_EQ(qvn_debug_log[2], stages[c]);
    EXPECT_EQ(dsc_data_num, 20);  // half the batch seeds the next attempt
    EXPECT_NEAR(hdi[0], codes[c] == 0 ? 10.0f : 9.0f, 0.01f);  // written only on success
  }
}

}  // namespace
