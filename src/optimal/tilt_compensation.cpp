// Trap compensation of the azimuth, and the field rotations that go with it.
//
// The azimuth az (degrees) is pulled toward the nearest multiple of 45:
//   t = 45 k (360 becomes 0),  delta = t - az (wrapped),  |delta| < 22.5
//   az' = az + delta * table[trunc |delta|]
// Every table entry is below 1, so the result stays on the same side of the
// mark. The field may be turned by the same yaw about the vertical: level it
// with pitch p and roll r, turn it by y, tilt it back:
//   X = m.x cos r - m.z sin r
//   Y = m.y cos p + m.x sin p sin r + m.z sin p cos r
//   Z = m.x cos p sin r - m.y sin p + m.z cos p cos r
// Angles of the rotation routines are radians.
#include <math.h>

#include "math/convert.h"
#include "math/math.h"
#include "optimal/optimal.h"

namespace {

constexpr float kMarkDeg = 45.0f;            // deg between compass marks
constexpr double kMarkDegD = 45.0;           // the same, in the double expressions
constexpr float kCaptureDeg = 22.5f;         // deg, half the distance between marks
constexpr int64_t kMarksPerTurn = 8;
constexpr float kHalfTurnDeg = 180.0f;
constexpr float kFullTurnDeg = 360.0f;
constexpr double kHalfTurnDegD = 180.0;
constexpr int32_t kLastEntry = QVN_TRAP_TABLE_LEN - 1;

float DegToRad(float deg) {
  return static_cast<float>(static_cast<double>(deg) * qvn::kPi / kHalfTurnDegD);
}

struct Levelled {
  float x, y, z;
};

// Takes the field into the horizontal frame of pitch p and roll r; the same
// levelling as the face-up compass.
Levelled Level(const float m[3], float sp, float cp, float sr, float cr) {
  Levelled l;
  l.x = m[0] * cr - m[2] * sr;
  l.y = (m[1] * cp + m[0] * sp * sr) + m[2] * sp * cr;
  l.z = (m[0] * cp * sr - m[1] * sp) + m[2] * cp * cr;
  return l;
}

}  // namespace

void optimal_data_compensation(float mag[3], float ori[3], int16_t rotate_mag) {
  const float az = ori[0];
  // Nearest mark; exactly half-way rounds down. k is widened before the
  // increment so that an infinite azimuth (saturated k) cannot overflow.
  int64_t k = qvn::TruncToI32(az / kMarkDeg);
  const float rem =
      static_cast<float>(static_cast<double>(az) - static_cast<double>(k) * kMarkDegD);
  if (rem > kCaptureDeg) k = k + 1;
  const float target =
      (k < kMarksPerTurn) ? static_cast<float>(static_cast<double>(k) * kMarkDegD) : 0.0f;

  float delta = target - az;
  if (delta < -kHalfTurnDeg) delta = delta + kFullTurnDeg;
  // Also rejects NaN and infinite azimuths before the table is indexed.
  const float dist = fabsf(delta);
  if (!(dist < kCaptureDeg)) return;

  int32_t i = qvn::TruncToI32(dist);
  if (i < 0) i = 0;
  if (i > kLastEntry) i = kLastEntry;
  const float c = delta * trap_compensation_table[i];
  ori[0] = az + c;

  if (rotate_mag != 0) mag_xy_rotation(mag, DegToRad(ori[1]), DegToRad(ori[2]), DegToRad(c));
}

void mag_xy_rotation(float m[3], float pitch, float roll, float yaw) {
  if (yaw == 0.0f) return;
  const float sp = qvn_sin(pitch);
  const float cp = qvn_cos(pitch);
  const float sr = qvn_sin(roll);
  const float cr = qvn_cos(roll);
  const float sy = qvn_sin(yaw);
  const float cy = qvn_cos(yaw);

  const Levelled l = Level(m, sp, cp, sr, cr);
  const float xt = l.x * cy - l.y * sy;
  const float yt = l.x * sy + l.y * cy;

  // Tilt back with the transpose of the levelling.
  m[0] = (xt * cr + yt * sp * sr) + l.z * cp * sr;
  m[1] = yt * cp - l.z * sp;
  m[2] = (yt * sp * cr - xt * sr) + l.z * cp * cr;
}

void mag_xyz_rotation(float m[3], const float delta[3], float pitch, float roll) {
  const Levelled l = Level(m, qvn_sin(pitch), qvn_cos(pitch), qvn_sin(roll), qvn_cos(roll));

  // Turn about the vertical by delta[0], then about x by delta[1] + pitch and
  // about y by delta[2] + roll.
  const float c0 = qvn_cos(delta[0]);
  const float s0 = qvn_sin(delta[0]);
  const float x1 = l.x * c0 - l.y * s0;
  const float y1 = l.x * s0 + l.y * c0;

  const float b = delta[1] + pitch;
  const float cb = qvn_cos(b);
  const float sb = qvn_sin(b);
  const float y2 = y1 * cb - l.z * sb;
  const float z1 = y1 * sb + l.z * cb;

  const float c = delta[2] + roll;
  const float cc = qvn_cos(c);
  const float sc = qvn_sin(c);
  m[0] = x1 * cc + z1 * sc;
  m[1] = y2;
  m[2] = z1 * cc - x1 * sc;
}

void optimal_mag_align(float v[2], float angle) {
  const float ca = qvn_cos(angle);
  const float sa = qvn_sin(angle);
  const float x = ca * v[0] - sa * v[1];
  const float y = sa * v[0] + ca * v[1];
  v[0] = x;
  v[1] = y;
}
