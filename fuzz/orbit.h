// A phone turning through every attitude, as the fuzzers and the seed
// generator describe it in a few bytes.
//
// Attitude R = Rz(yaw) * Rx(pitch) with yaw and pitch advancing at constant,
// different rates, so a stretch of samples covers the whole sphere of
// directions. Body-frame readings are R^T applied to the earth vectors:
//   gravity  g_e = (0, 0, 9.81) m/s^2
//   field    b_e = radius * (0, cos 60deg, -sin 60deg) uT, plus a hard-iron
//            centre and a little deterministic noise
//   rate     w_b = (pitch', yaw' sin(pitch), yaw' cos(pitch)) rad/s
#ifndef QVNLIB_FUZZ_ORBIT_H
#define QVNLIB_FUZZ_ORBIT_H

#include <math.h>
#include <stdint.h>

#include "fuzz_input.h"

namespace qvn_fuzz {

struct OrbitParams {
  int samples;       // 1 .. 256
  uint64_t step_ns;  // 1 .. 256 ms between samples
  double radius;     // uT, 20 .. 83.75
  double centre[3];  // uT, -128 .. 127
  int yaw_turns;     // whole yaw turns over the stretch, 1 .. 8
  int pitch_turns;   // whole pitch turns over the stretch, 1 .. 8
  double noise;      // uT peak, 0 .. 4
  uint32_t seed;
};

struct OrbitSample {
  float acc[3];
  float gyr[3];
  float mag[3];
};

// Operands (8 bytes): samples-1, step ms-1, radius code, centre x/y/z as
// int8, turns (yaw in bits 0-2, pitch in bits 3-5), noise code.
inline OrbitParams ReadOrbit(Reader &r) {
  OrbitParams p;
  p.samples = 1 + r.U8();
  p.step_ns = (uint64_t{r.U8()} + 1u) * 1000000u;
  p.radius = 20.0 + r.U8() * 0.25;
  for (double &c : p.centre) c = static_cast<int8_t>(r.U8());
  const uint8_t turns = r.U8();
  p.yaw_turns = 1 + (turns & 7);
  p.pitch_turns = 1 + ((turns >> 3) & 7);
  const uint8_t noise = r.U8();
  p.noise = noise / 64.0;
  p.seed = noise * 2654435761u + 1u;
  return p;
}

inline OrbitSample OrbitAt(const OrbitParams &p, int i) {
  const double two_pi = 6.283185307179586;
  const double t = static_cast<double>(i) / p.samples;
  const double span_s = p.samples * (p.step_ns * 1e-9);
  const double yaw = two_pi * p.yaw_turns * t;
  const double pitch = two_pi * p.pitch_turns * t + 0.3;
  const double yaw_rate = two_pi * p.yaw_turns / span_s;
  const double pitch_rate = two_pi * p.pitch_turns / span_s;
  const double cy = cos(yaw), sy = sin(yaw), cp = cos(pitch), sp = sin(pitch);
  // Columns of R = Rz(yaw) * Rx(pitch); R^T v is (col0.v, col1.v, col2.v).
  const double col[3][3] = {{cy, sy, 0.0}, {-sy * cp, cy * cp, sp}, {sy * sp, -cy * sp, cp}};
  const double g_e[3] = {0.0, 0.0, 9.81};
  const double b_e[3] = {0.0, 0.5 * p.radius, -0.8660254037844386 * p.radius};
  uint32_t lcg = p.seed + static_cast<uint32_t>(i) * 747796405u;
  OrbitSample s;
  for (int k = 0; k < 3; ++k) {
    lcg = lcg * 1664525u + 1013904223u;
    const double jitter = p.noise * (static_cast<double>(lcg >> 8) / 8388608.0 - 1.0);
    s.acc[k] = static_cast<float>(col[k][0] * g_e[0] + col[k][1] * g_e[1] + col[k][2] * g_e[2]);
    s.mag[k] = static_cast<float>(col[k][0] * b_e[0] + col[k][1] * b_e[1] + col[k][2] * b_e[2] +
                                  p.centre[k] + jitter);
  }
  s.gyr[0] = static_cast<float>(pitch_rate);
  s.gyr[1] = static_cast<float>(yaw_rate * sin(pitch));
  s.gyr[2] = static_cast<float>(yaw_rate * cos(pitch));
  return s;
}

}  // namespace qvn_fuzz

#endif  // QVNLIB_FUZZ_ORBIT_H
