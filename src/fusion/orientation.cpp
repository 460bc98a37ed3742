// Orientation angles (azimuth, pitch, roll) for the fusion driver.
//
// Two sources, chosen by the driver's mode:
//   mode != 0  advance Qfusion by the attitude filter with dtheta = gyro * dt
//              and read the angles off the quaternion;
//   mode == 0  a tilt-compensated compass on one accelerometer and one field
//              sample:
//                roll  r = asin(g.x),  pitch p = atan2(-g.y, +-g.x sin r + g.z cos r)
//                X = m.x cos r - m.z sin r
//                Y = m.y cos p + m.x sin p sin r + m.z sin p cos r
//                azimuth = atan2(-X, Y) in [0, 2 pi)
//              with mirrored X and Y when the device lies face down.
// Internally radians; the driver receives degrees, azimuth in [0, 360).
#include "fusion/fusion.h"
#include "math/convert.h"
#include "math/math.h"

namespace {

constexpr float kDegPerHalfTurn = 180.0f;   // deg, the float factor of rad -> deg
constexpr float kFullTurnDeg = 360.0f;      // deg
constexpr double kRollScale = -2.0;         // the -2 of the roll arcsine, in double
// rad: the quarter turn as the float nearest pi/2, used when Y is exactly 0.
constexpr float kQuarterTurn = 1.5707964f;

// rad -> deg. The product with 180 rounds in float before the division by pi
// is taken in double; both roundings show in the reported angles.
float ToDegrees(float rad) {
  return static_cast<float>(static_cast<double>(rad * kDegPerHalfTurn) / qvn::kPi);
}

}  // namespace

void quaternion2euler(const float q[4], float out[3]) {
  const float s0 = q[0] * q[0];
  const float s1 = q[1] * q[1];
  const float s2 = q[2] * q[2];
  const float s3 = q[3] * q[3];

  // 2u is formed as u + u; the sums of squares are grouped as they always
  // were, because a quaternion that is not exactly unit makes the grouping
  // visible in the last bit.
  const float yaw_u = q[1] * q[2] + q[0] * q[3];
  const float pitch_u = q[2] * q[3] + q[1] * q[0];
  out[0] = -qvn_atan2(yaw_u + yaw_u, s0 + ((s1 - s2) - s3));
  out[1] = -qvn_atan2(pitch_u + pitch_u, (s0 + (-s1 - s2)) + s3);

  // Dividing by the squared length keeps the arcsine argument in range for a
  // quaternion that is not exactly unit; the quotient is taken in double and
  // narrowed once.
  const double roll_num = static_cast<double>(q[1] * q[3] - q[2] * q[0]) * kRollScale;
  const double len_sq = static_cast<double>(s0 + ((s1 + s2) + s3));
  out[2] = -qvn_asin(static_cast<float>(roll_num / len_sq));
}

int16_t calculate_ypr_angle(const float acc[3], const float mag[3], float out[3]) {
  float g[3];
  float roll = 0.0f;
  float pitch = 0.0f;
  // A zero (or NaN) accelerometer vector gives a level device: the azimuth
  // then follows from the field alone.
  if (sensor_data_normalize(g, acc) != 0) {
    roll = qvn_asin(g[0]);
    float c = g[0] * qvn_sin(roll);
    if (g[2] < 0.0f) c = -c;
    pitch = qvn_atan2(-g[1], c + g[2] * qvn_cos(roll));
  }

  const float sr = qvn_sin(roll);
  const float cr = qvn_cos(roll);
  const float sp = qvn_sin(pitch);
  const float cp = qvn_cos(pitch);

  // The raw field is levelled, not the normalised one; only the direction of
  // (X, Y) matters. The face-down mirror is chosen on the raw acc.z.
  float x_h;
  float y_h;
  if (acc[2] >= 0.0f) {
    x_h = mag[0] * cr - mag[2] * sr;
    y_h = (mag[1] * cp + mag[0] * sp * sr) + mag[2] * sp * cr;
  } else {
    x_h = -(mag[0] * cr) - mag[2] * sr;
    y_h = (mag[0] * sp * sr - mag[1] * cp) - mag[2] * sp * cr;
  }

  float azimuth;
  if (y_h != 0.0f) {
    azimuth = qvn_atan2(-x_h, y_h);
    if (azimuth < 0.0f) azimuth = static_cast<float>(static_cast<double>(azimuth) + qvn::kTwoPi);
  } else if (x_h > 0.0f) {
    // Y exactly 0 would hand atan2 a signed zero; the two quarter turns are
    // set instead, the +x one as the float quarter turn wrapped in double.
    azimuth = static_cast<float>(static_cast<double>(-kQuarterTurn) + qvn::kTwoPi);
  } else {
    azimuth = kQuarterTurn;
  }

  out[0] = azimuth;
  out[1] = pitch;
  out[2] = roll;
  return 1;
}

int16_t ori_calculation(float q[4], const float acc[3], const float mag[3], const float gyro[3],
                        int16_t mode, float out[3], float dt) {
  if (mode != 0) {
    const float dtheta[3] = {gyro[0] * dt, gyro[1] * dt, gyro[2] * dt};
    run_sensor_fusion(acc, mag, dtheta, q);
    quaternion2euler(q, out);
  } else {
    // The compass path leaves the quaternion as it is.
    calculate_ypr_angle(acc, mag, out);
  }

  out[0] = ToDegrees(out[0]);
  out[1] = ToDegrees(out[1]);
  out[2] = ToDegrees(out[2]);
  // Only the azimuth is wrapped; a -0 azimuth stays -0 rather than 360.
  if (out[0] < 0.0f) out[0] = out[0] + kFullTurnDeg;
  return 1;
}
