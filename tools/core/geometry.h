// Small double-precision rotation helpers for the tools (simulation and
// scoring only; the library itself is never computed with these).
//
// Quaternions are scalar first (w, x, y, z) and rotate phone coordinates into
// world coordinates (east, north, up): v_world = q * v_phone * q^-1.
#ifndef QVNLIB_TOOLS_CORE_GEOMETRY_H
#define QVNLIB_TOOLS_CORE_GEOMETRY_H

#include <cmath>

namespace qvn_tools {

constexpr double kDegPerRad = 57.29577951308232;

struct V3 {
  double x, y, z;
};

struct Quat {
  double w, x, y, z;
};

inline V3 operator+(V3 a, V3 b) { return {a.x + b.x, a.y + b.y, a.z + b.z}; }
inline V3 operator-(V3 a, V3 b) { return {a.x - b.x, a.y - b.y, a.z - b.z}; }
inline V3 operator*(double s, V3 a) { return {s * a.x, s * a.y, s * a.z}; }
inline double Dot(V3 a, V3 b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
inline double Norm(V3 a) { return std::sqrt(Dot(a, a)); }

inline Quat Mul(Quat a, Quat b) {
  return {
      a.w * b.w - a.x * b.x - a.y * b.y - a.z * b.z, a.w * b.x + a.x * b.w + a.y * b.z - a.z * b.y,
      a.w * b.y - a.x * b.z + a.y * b.w + a.z * b.x, a.w * b.z + a.x * b.y - a.y * b.x + a.z * b.w};
}
inline Quat Conj(Quat q) { return {q.w, -q.x, -q.y, -q.z}; }
inline Quat Normalized(Quat q) {
  double n = std::sqrt(q.w * q.w + q.x * q.x + q.y * q.y + q.z * q.z);
  return {q.w / n, q.x / n, q.y / n, q.z / n};
}

// Rotation by angle (rad) about a unit axis.
inline Quat AxisAngle(V3 axis, double angle) {
  double s = std::sin(0.5 * angle);
  return {std::cos(0.5 * angle), s * axis.x, s * axis.y, s * axis.z};
}

// q * v * q^-1 for a unit quaternion.
inline V3 Rotate(Quat q, V3 v) {
  Quat p = Mul(Mul(q, Quat{0, v.x, v.y, v.z}), Conj(q));
  return {p.x, p.y, p.z};
}
inline V3 RotateInverse(Quat q, V3 v) { return Rotate(Conj(q), v); }

// Normalised linear interpolation on the shorter arc, s in [0, 1].
inline Quat Nlerp(Quat a, Quat b, double s) {
  if (a.w * b.w + a.x * b.x + a.y * b.y + a.z * b.z < 0) b = {-b.w, -b.x, -b.y, -b.z};
  return Normalized(
      {a.w + s * (b.w - a.w), a.x + s * (b.x - a.x), a.y + s * (b.y - a.y), a.z + s * (b.z - a.z)});
}

// Azimuth as a phone reports it: the angle from north to the phone's y axis
// projected on the horizontal plane, clockwise, in degrees [0, 360).
inline double AzimuthDeg(Quat phone_to_world) {
  V3 y = Rotate(phone_to_world, {0, 1, 0});
  double a = std::atan2(y.x, y.y) * kDegPerRad;
  return a < 0 ? a + 360.0 : a;
}

// Wraps an angle difference into (-180, 180].
inline double WrapDeg(double d) {
  d = std::fmod(d, 360.0);
  if (d > 180.0) d -= 360.0;
  if (d <= -180.0) d += 360.0;
  return d;
}

// Row-major 3x3 matrix products and inverse.
inline V3 MatVec(const double m[9], V3 v) {
  return {m[0] * v.x + m[1] * v.y + m[2] * v.z, m[3] * v.x + m[4] * v.y + m[5] * v.z,
          m[6] * v.x + m[7] * v.y + m[8] * v.z};
}
inline bool Invert3(const double m[9], double out[9]) {
  double c0 = m[4] * m[8] - m[5] * m[7], c1 = m[5] * m[6] - m[3] * m[8],
         c2 = m[3] * m[7] - m[4] * m[6];
  double det = m[0] * c0 + m[1] * c1 + m[2] * c2;
  if (det == 0.0 || !std::isfinite(det)) return false;
  double r = 1.0 / det;
  out[0] = c0 * r;
  out[1] = (m[2] * m[7] - m[1] * m[8]) * r;
  out[2] = (m[1] * m[5] - m[2] * m[4]) * r;
  out[3] = c1 * r;
  out[4] = (m[0] * m[8] - m[2] * m[6]) * r;
  out[5] = (m[2] * m[3] - m[0] * m[5]) * r;
  out[6] = c2 * r;
  out[7] = (m[1] * m[6] - m[0] * m[7]) * r;
  out[8] = (m[0] * m[4] - m[1] * m[3]) * r;
  return true;
}

}  // namespace qvn_tools

#endif  // QVNLIB_TOOLS_CORE_GEOMETRY_H
