// Inner getters of the fusion outputs.
//
// Each copies what the last fusion step left behind, then the low byte of the
// accuracy level and the timestamp of that step. The only computation is the
// Euler-angle rotation vector (g_enable_softGyro_rv = 2):
//   half angles ha = a' k / 2, hp = p k / 2, hr = -r k / 2 (k ~ pi / 180)
//   x = -(cp sa sr + ca cr sp)     y = ca cp sr - sa cr sp
//   z =   sa cr cp + ca sr sp      w = ca cr cp - sa sr sp
// with a' the azimuth moved into [-180, 180). Not normalised: unit length up
// to rounding.
#include <string.h>

#include "cali/cali.h"
#include "fusion/fusion.h"
#include "math/math.h"

namespace {

// Sources of the rotation vectors selected by g_enable_softGyro_rv.
constexpr uint16_t kRvFromSoftGyro = 1;
constexpr uint16_t kRvFromAngles = 2;

constexpr float kHalfTurnDeg = 180.0f;  // deg
constexpr float kFullTurnDeg = 360.0f;  // deg
constexpr float kHalf = 0.5f;
// Bits of the degree-to-radian factor the rotation vectors have always used:
// 0.017453277, a little below pi/180. The exact float matters for the output
// bits, so it is built from its bit pattern rather than from a decimal.
constexpr uint32_t kDegToRadBits = 0x3C8EFA2Du;

float DegToRad() {
  float k;
  memcpy(&k, &kDegToRadBits, sizeof k);
  return k;
}

void Finish(uint8_t *accuracy, uint64_t *timestamp) {
  // Only the low byte travels; the level is 0..3 in practice.
  *accuracy = static_cast<uint8_t>(qvn_accuracy);
  *timestamp = timestamp_fuison;
}

void Copy3(float *values, const float *src) {
  values[0] = src[0];
  values[1] = src[1];
  values[2] = src[2];
}

void Copy4(float *values, const float *src) {
  values[0] = src[0];
  values[1] = src[1];
  values[2] = src[2];
  values[3] = src[3];
}

}  // namespace

void qvn_get_rotation_vector_euler(float *q) {
  const float k = DegToRad();
  float a = qvn_ori[0];
  // 180 itself moves to -180; anything below stays.
  if (!(a < kHalfTurnDeg)) a = a - kFullTurnDeg;
  const float ha = a * k * kHalf;
  const float hp = qvn_ori[1] * k * kHalf;
  // Roll enters negated: the angle convention of the reported roll is the
  // mirror of the one this quaternion is built in.
  const float hr = qvn_ori[2] * (-k) * kHalf;

  const float ca = qvn_cos(ha);
  const float cp = qvn_cos(hp);
  const float cr = qvn_cos(hr);
  const float sa = qvn_sin(ha);
  const float sp = qvn_sin(hp);
  const float sr = qvn_sin(hr);

  q[0] = -(cp * sa * sr + ca * cr * sp);
  q[1] = ca * cp * sr - sa * cr * sp;
  q[2] = sa * cr * cp + ca * sr * sp;
  q[3] = ca * cr * cp - sa * sr * sp;
}

void qvn_getOrientation(float *values, uint8_t *accuracy, uint64_t *timestamp) {
  Copy3(values, qvn_ori);
  Finish(accuracy, timestamp);
}

void qvn_getGravity(float *values, uint8_t *accuracy, uint64_t *timestamp) {
  Copy3(values, qvn_gra);
  Finish(accuracy, timestamp);
}

void qvn_getLinearaccel(float *values, uint8_t *accuracy, uint64_t *timestamp) {
  Copy3(values, qvn_lin);
  Finish(accuracy, timestamp);
}

void qvn_getVirtualGyro(float *values, uint8_t *accuracy, uint64_t *timestamp) {
  Copy3(values, qvn_gyr);
  Finish(accuracy, timestamp);
}

void qvn_getRotationVector(float *values, uint8_t *accuracy, uint64_t *timestamp) {
  if (g_enable_softGyro_rv == kRvFromAngles) {
    qvn_get_rotation_vector_euler(values);
  } else if (g_enable_softGyro_rv == kRvFromSoftGyro) {
    Copy4(values, qvn_rov);
  } else {
    // Qfusion is scalar first; rotation vectors are reported scalar last.
    const float reordered[4] = {Qfusion[1], Qfusion[2], Qfusion[3], Qfusion[0]};
    Copy4(values, reordered);
  }
  Finish(accuracy, timestamp);
}

// The game rotation vector has always been the plain rotation vector: one
// routine exported under both names.
void qvn_getGameRotationVector(float *values, uint8_t *accuracy, uint64_t *timestamp)
    __attribute__((alias("qvn_getRotationVector")));

void qvn_getGeoMagnetic(float *values, uint8_t *accuracy, uint64_t *timestamp) {
  // Never Qfusion, unlike the rotation vector: the soft gyroscope's vector
  // unless the angles are selected.
  Copy4(values, qvn_rov);
  if (g_enable_softGyro_rv == kRvFromAngles) qvn_get_rotation_vector_euler(values);
  Finish(accuracy, timestamp);
}
