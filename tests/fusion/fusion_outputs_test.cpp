// Inner getters: sources, accuracy byte, timestamp, and the Euler quaternion.
#include <math.h>
#include <string.h>

#include <gtest/gtest.h>

#include "cali/cali.h"
#include "fusion/fusion.h"
#include "math/math.h"
#include "support/synthetic.h"

namespace {

using Getter = void (*)(float *, uint8_t *, uint64_t *);

TEST(FusionGetters, SourcesAccuracyAndTimestamp) {
  const float rov[4] = {0.1f, 0.2f, 0.3f, 0.4f}, q[4] = {0.5f, 0.6f, 0.7f, 0.8f};
  memcpy(qvn_rov, rov, sizeof rov);
  memcpy(Qfusion, q, sizeof q);
  qvn_ori[0] = 10;
  qvn_gra[0] = 1;
  qvn_lin[0] = 4;
  qvn_gyr[0] = 7;
  qvn_accuracy = 0x0102;  // only the low byte travels
  timestamp_fuison = 123456789012345ull;
  float euler[4];
  qvn_get_rotation_vector_euler(euler);
  const float fused[4] = {0.6f, 0.7f, 0.8f, 0.5f};  // Qfusion, scalar last
  const struct {
    uint16_t rv_mode;
    Getter get;
    const float *expect;
    int n;
  } cases[] = {{1, qvn_getOrientation, qvn_ori, 3},     {1, qvn_getGravity, qvn_gra, 3},
               {1, qvn_getLinearaccel, qvn_lin, 3},     {1, qvn_getVirtualGyro, qvn_gyr, 3},
               {1, qvn_getRotationVector, rov, 4},      {2, qvn_getRotationVector, euler, 4},
               {0, qvn_getRotationVector, fused, 4},    {7, qvn_getGameRotationVector, fused, 4},
               {0, qvn_getGeoMagnetic, rov, 4},         {2, qvn_getGeoMagnetic, euler, 4}};
  for (const auto &c : cases) {
    g_enable_softGyro_rv = c.rv_mode;
    float v[4] = {-9, -9, -9, -9};
    uint8_t accuracy = 0;
    uint64_t t = 0;
    c.get(v, &accuracy, &t);
    EXPECT_EQ(0, memcmp(v, c.expect, c.n * sizeof(float))) << c.rv_mode;
    if (c.n == 3) {
      EXPECT_EQ(v[3], -9.0f);  // no fourth value
    }
    EXPECT_EQ(accuracy, 2);
    EXPECT_EQ(t, 123456789012345ull);
  }
}

TEST(EulerRotationVector, KnownAnswersAndUnitLength) {
  const struct {
    float ori[3];
    float q[4];
  } cases[] = {{{0, 0, 0}, {-0.0f, 0, 0, 1}},
               {{180, 0, 0}, {0, 0, -1, 0}},  // 180 is shifted to -180
               {{179.9f, 0, 0}, {0, 0, 1, 0.000874f}},
               {{0, 0, 60}, {0, -0.5f, 0, 0.8660254f}}};  // roll enters negated
  float q[4];
  for (const auto &c : cases) {
    memcpy(qvn_ori, c.ori, sizeof c.ori);
    qvn_get_rotation_vector_euler(q);
    for (int i = 0; i < 4; ++i) EXPECT_NEAR(q[i], c.q[i], 1e-5) << c.ori[0] << " " << i;
  }
  qvn_ori[0] = qvn_ori[2] = 0;
  qvn_get_rotation_vector_euler(q);
  EXPECT_TRUE(std::signbit(q[0]));
  // k has the bits 0x3C8EFA2D, a little below pi/180: 1 degree of azimuth.
  qvn_ori[0] = 1.0f;
  qvn_get_rotation_vector_euler(q);
  EXPECT_EQ(qvn_test::Bits(q[2]), qvn_test::Bits(qvn_sin(qvn_test::FromBits(0x3C8EFA2Du) * 0.5f)));

  qvn_test::Lcg lcg(11);
  for (int i = 0; i < 300; ++i) {
    const float ori[3] = {(lcg.Uniform() + 1) * 180, lcg.Uniform() * 180, lcg.Uniform() * 90};
    memcpy(qvn_ori, ori, sizeof ori);
    qvn_get_rotation_vector_euler(q);
    EXPECT_NEAR(q[0] * q[0] + q[1] * q[1] + q[2] * q[2] + q[3] * q[3], 1.0f, 2e-6);
  }
}

}  // namespace
