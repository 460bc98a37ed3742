// The scalar Kalman filter of the field.
#include <math.h>

#include <gtest/gtest.h>

#include "optimal/optimal.h"

namespace {

TEST(MagKalman, DefaultsPassThroughAndRSmooths) {
  float v[3] = {30, -15, 3};
  optimal_mag_filter(v);
  EXPECT_TRUE(v[0] == 30.0f && v[1] == -15.0f && m_kmf_g == 1.0f && m_kmf_p == 0.0f);
  g_m_kmf_r = 1.0f;
  m_kmf_p = 1.0f;
  m_kmf_output[0] = 0.0f;
  optimal_mag_filter(v);  // P' = 2, G = 2/3, P = 2/3
  EXPECT_EQ(m_kmf_pt, 2.0f);
  EXPECT_FLOAT_EQ(m_kmf_g, 2.0f / 3.0f);
  EXPECT_FLOAT_EQ(m_kmf_p, 2.0f / 3.0f);
  EXPECT_FLOAT_EQ(v[0], 20.0f);
}

TEST(MagKalman, StartDelayPassesNineThenFilters) {
  g_m_kmf_r = 1.0f;
  m_kmf_start_delay = 10;
  for (int i = 1; i <= 9; ++i) {
    float v[3] = {static_cast<float>(i), 0, 0};
    optimal_mag_filter(v);
    EXPECT_EQ(v[0], static_cast<float>(i));
    EXPECT_EQ(m_kmf_output[0], static_cast<float>(i));
  }
  float v[3] = {100, 0, 0};
  optimal_mag_filter(v);
  EXPECT_EQ(m_kmf_start_delay, 0);
  EXPECT_FLOAT_EQ(v[0], 9.0f + m_kmf_g * 91.0f);
  EXPECT_LT(v[0], 100.0f);
}

TEST(MagKalman, ZeroDenominatorIsNotGuarded) {
  // Q = 0 and R = 0 once the covariance is 0: the gain is 0/0, as designed,
  // and the output follows it. Nothing crashes; the host chose the tunables.
  m_kmf_p = 0.0f;
  g_m_kmf_q = 0.0f;
  g_m_kmf_r = 0.0f;
  float v[3] = {1, 2, 3};
  optimal_mag_filter(v);
  EXPECT_TRUE(isnan(m_kmf_g));
  EXPECT_TRUE(isnan(v[2]));
}

}  // namespace
