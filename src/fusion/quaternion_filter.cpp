// Complementary attitude filter on the unit quaternion Qfusion.
//
// Quaternions are scalar first, q = (w, x, y, z), and map body vectors into a
// reference frame with x east, y north, z up: v_ref = q (0, v) conj(q).
// One step:
//   a  = direction of gravity in the reference frame, m = direction of field
//   c_a = (0, wa a.y, -wa a.x, 0)        tilt error, a x (0, 0, 1), scaled
//   c_m = (0, 0, 0, wm m.x)              heading error: east part of the field
//   h   = (0, dtheta / 2)                gyroscope increment, rad
//   q'  = q + c_a q + c_m q + q h,  then normalised with w >= 0.
// The corrections multiply from the left (reference frame), the gyroscope
// from the right (body frame). The weights are applied in full on every step,
// whatever its length; there is no time constant.
#include "fusion/fusion.h"
#include "math/math.h"

namespace {

// Hamilton product out = a x b, each component summed left to right in the
// order written. out may alias a or b.
void HamiltonProduct(const float *a, const float *b, float *out) {
  const float w = ((a[0] * b[0] - a[1] * b[1]) - a[2] * b[2]) - a[3] * b[3];
  const float x = ((a[0] * b[1] + a[1] * b[0]) + a[2] * b[3]) - a[3] * b[2];
  const float y = ((a[0] * b[2] - a[1] * b[3]) + a[2] * b[0]) + a[3] * b[1];
  const float z = ((a[0] * b[3] + a[1] * b[2]) - a[2] * b[1]) + a[3] * b[0];
  out[0] = w;
  out[1] = x;
  out[2] = y;
  out[3] = z;
}

// Divides q by its length (squares summed w, x, y, z in that order); a length
// of exactly zero restarts from identity.
void NormaliseOrReset(float *q) {
  const float n = qvn_sqrt(((q[0] * q[0] + q[1] * q[1]) + q[2] * q[2]) + q[3] * q[3]);
  if (n == 0.0f) {
    q[0] = 1.0f;
    q[1] = 0.0f;
    q[2] = 0.0f;
    q[3] = 0.0f;
    return;
  }
  q[0] = q[0] / n;
  q[1] = q[1] / n;
  q[2] = q[2] / n;
  q[3] = q[3] / n;
}

}  // namespace

void AccCorrection(const float q[4], const float v[3], float out[4]) {
  const float n = qvn_sqrt((v[0] * v[0] + v[1] * v[1]) + v[2] * v[2]);
  float p[4] = {1.0f, 0.0f, 0.0f, 0.0f};  // a zero vector rotates to nothing
  if (n != 0.0f) {
    p[0] = 0.0f;
    p[1] = v[0] / n;
    p[2] = v[1] / n;
    p[3] = v[2] / n;
  }
  const float conj[4] = {q[0], -q[1], -q[2], -q[3]};
  float t[4];
  HamiltonProduct(q, p, t);
  HamiltonProduct(t, conj, out);
}

// Gravity and field are rotated by one and the same routine; the second name
// is part of the exported set.
void MagCorrection(const float q[4], const float v[3], float out[4])
    __attribute__((alias("AccCorrection")));

void run_sensor_fusion(const float acc[3], const float mag[3], const float dtheta[3],
                       float q[4]) {
  const float q0 = q[0];
  const float q1 = q[1];
  const float q2 = q[2];
  const float q3 = q[3];

  float a[4];
  float m[4];
  AccCorrection(q, acc, a);
  MagCorrection(q, mag, m);

  // Components of the two left corrections. The x part of c_a is wa*a.y and
  // its y part -(wa*a.x); the sign is folded into the sums below, which is
  // exact, so only the products themselves round.
  const float ca_x = qacc_weight * a[2];
  const float ca_y_neg = qacc_weight * a[1];
  const float cm_z = qmag_weight * m[1];

  constexpr float kHalf = 0.5f;
  const float h1 = dtheta[0] * kHalf;
  const float h2 = dtheta[1] * kHalf;
  const float h3 = dtheta[2] * kHalf;

  // The zero products are the scalar parts of the pure quaternions; they are
  // kept so that the signs of zero and the NaN behaviour follow the full
  // product. Every sum is grouped exactly as the filter has always added it:
  // reordering changes the last bit of the attitude.
  const float w = q0 + ((((0.0f * q0 - ca_x * q1) + ca_y_neg * q2) - cm_z * q3) +
                        (((0.0f * q0 - q1 * h1) - q2 * h2) - q3 * h3));
  const float x = q1 + ((((ca_x * q0 + 0.0f * q1) - ca_y_neg * q3) - cm_z * q2) +
                        (((0.0f * q1 + q0 * h1) + q2 * h3) - q3 * h2));
  const float y = q2 + ((cm_z * q1 + ((0.0f * q2 - ca_x * q3) - ca_y_neg * q0)) +
                        (q3 * h1 + (0.0f * q2 + (q0 * h2 - q1 * h3))));
  const float z = q3 + ((cm_z * q0 + ((ca_x * q2 + 0.0f * q3) + ca_y_neg * q1)) +
                        (0.0f * q3 + ((q1 * h2 + q0 * h3) - q2 * h1)));

  q[0] = w;
  q[1] = x;
  q[2] = y;
  q[3] = z;
  NormaliseOrReset(q);
  // q and -q are the same attitude; the stored one keeps w >= 0 so that the
  // rotation vectors derived from it do not flip sign between steps.
  if (q[0] < 0.0f) {
    q[0] = -q[0];
    q[1] = -q[1];
    q[2] = -q[2];
    q[3] = -q[3];
  }
}

// ---- exported quaternion helpers; no routine of the library calls them ----

float *q_multf(float *a, const float *b, float *out) {
  HamiltonProduct(a, b, out);
  return a;
}

float *q_addf(float *a, const float *b, float *out) {
  out[0] = a[0] + b[0];
  out[1] = a[1] + b[1];
  out[2] = a[2] + b[2];
  out[3] = a[3] + b[3];
  return a;
}

void q_normalizef(float *q) { NormaliseOrReset(q); }

// The conjugate, not the inverse: callers only pass unit quaternions, so the
// division by the squared length is left out.
float *q_invertf(float *a, float *out) {
  out[0] = a[0];
  out[1] = -a[1];
  out[2] = -a[2];
  out[3] = -a[3];
  return a;
}
