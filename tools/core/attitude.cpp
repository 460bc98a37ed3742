// Orientation outputs -> phone-to-world quaternions, and the heading/tilt split
// of an attitude error. See attitude.h for the conventions.
#include "core/attitude.h"

#include <algorithm>
#include <cmath>

namespace qvn_tools {
namespace {

const V3 kX{1, 0, 0}, kY{0, 1, 0}, kZ{0, 0, 1};

// Pitch band in which the compass path's driver subtracts 180 from the azimuth
// (strict on both ends).
constexpr double kFoldLowDeg = 90.0, kFoldHighDeg = 140.0;

double Rad(double deg) { return deg / kDegPerRad; }

V3 Cross(V3 a, V3 b) {
  return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}

// Quaternion of a proper rotation matrix given by rows (row-major).
Quat FromMatrix(const double m[9]) {
  double tr = m[0] + m[4] + m[8];
  Quat q;
  // Largest-diagonal branch for accuracy near 180-degree rotations.
  if (tr > 0) {
    double s = 2 * std::sqrt(1 + tr);
    q = {0.25 * s, (m[7] - m[5]) / s, (m[2] - m[6]) / s, (m[3] - m[1]) / s};
  } else if (m[0] > m[4] && m[0] > m[8]) {
    double s = 2 * std::sqrt(1 + m[0] - m[4] - m[8]);
    q = {(m[7] - m[5]) / s, 0.25 * s, (m[1] + m[3]) / s, (m[2] + m[6]) / s};
  } else if (m[4] > m[8]) {
    double s = 2 * std::sqrt(1 + m[4] - m[0] - m[8]);
    q = {(m[2] - m[6]) / s, (m[1] + m[3]) / s, 0.25 * s, (m[5] + m[7]) / s};
  } else {
    double s = 2 * std::sqrt(1 + m[8] - m[0] - m[4]);
    q = {(m[3] - m[1]) / s, (m[2] + m[6]) / s, (m[5] + m[7]) / s, 0.25 * s};
  }
  return Normalized(q);
}

}  // namespace

Quat FromGyroPathAngles(double azimuth, double pitch, double roll) {
  return Mul(AxisAngle(kZ, -Rad(azimuth)),
             Mul(AxisAngle(kY, -Rad(roll)), AxisAngle(kX, -Rad(pitch))));
}

Quat FromCompassPathAngles(double azimuth, double pitch, double roll) {
  double p = Rad(pitch), r = Rad(roll);
  double sp = std::sin(p), cp = std::cos(p), sr = std::sin(r), cr = std::cos(r);
  // The levelling's first two rows are the formulas of the compass path: the
  // field's levelled (X, Y) = rows 0 and 1 times the phone's field vector.
  // Face down the library uses X = -mx cos r - mz sin r and
  // Y = mx sin p sin r - my cos p - mz sin p cos r.
  bool face_down = std::fabs(pitch) > kFoldLowDeg;
  V3 row0 = face_down ? V3{-cr, 0, -sr} : V3{cr, 0, -sr};
  V3 row1 = face_down ? V3{sp * sr, -cp, -sp * cr} : V3{sp * sr, cp, sp * cr};
  V3 row2 = Cross(row0, row1);  // completes a proper rotation: phone's up estimate
  const double level[9] = {row0.x, row0.y, row0.z, row1.x, row1.y, row1.z, row2.x, row2.y, row2.z};
  double a = azimuth;
  if (std::fabs(pitch) > kFoldLowDeg && std::fabs(pitch) < kFoldHighDeg) a += 180.0;
  // The azimuth is atan2(-X, Y) of the levelled field: a turn by -azimuth about
  // up takes the levelled frame to east-north-up.
  return Mul(AxisAngle(kZ, -Rad(a)), FromMatrix(level));
}

Quat EulerRotationVector(double azimuth, double pitch, double roll) {
  return Mul(AxisAngle(kZ, Rad(azimuth)),
             Mul(AxisAngle(kY, -Rad(roll)), AxisAngle(kX, -Rad(pitch))));
}

Quat FromRotationVector(const float v[4]) {
  return Normalized({double{v[3]}, double{v[0]}, double{v[1]}, double{v[2]}});
}

Quat FromRotationVector3(const float v[3]) {
  double x = v[0], y = v[1], z = v[2];
  double w2 = 1.0 - (x * x + y * y + z * z);
  return Normalized({w2 > 0 ? std::sqrt(w2) : 0.0, x, y, z});
}

void HeadingTiltError(Quat est, Quat truth, double *heading_deg, double *tilt_deg) {
  Quat e = Mul(est, Conj(truth));
  // For E = Rz(t) * S with S = (c, sx, sy, 0): E.w = cos(t/2) c, E.z = sin(t/2) c,
  // whichever order the two are composed in; q and -q give the same angles.
  double twist = 2.0 * std::atan2(e.z, e.w) * kDegPerRad;
  *heading_deg = WrapDeg(-twist);  // counter-clockwise turn = smaller azimuth
  double c = std::min(1.0, std::sqrt(e.w * e.w + e.z * e.z));
  *tilt_deg = 2.0 * std::acos(c) * kDegPerRad;
}

}  // namespace qvn_tools
