#include "support/motion.h"

#include <math.h>

#include <algorithm>

#include "support/synthetic.h"

namespace qvn_test {
namespace {

struct Quat {
  double w, x, y, z;
};

Quat Mul(const Quat &a, const Quat &b) {
  return {a.w * b.w - a.x * b.x - a.y * b.y - a.z * b.z,
          a.w * b.x + a.x * b.w + a.y * b.z - a.z * b.y,
          a.w * b.y - a.x * b.z + a.y * b.w + a.z * b.x,
          a.w * b.z + a.x * b.y - a.y * b.x + a.z * b.w};
}

// World vector v expressed in the body frame of attitude q (body -> world).
void ToBody(const Quat &q, const double v[3], double out[3]) {
  const Quat p = {0.0, v[0], v[1], v[2]};
  const Quat qc = {q.w, -q.x, -q.y, -q.z};
  const Quat r = Mul(Mul(qc, p), q);
  out[0] = r.x;
  out[1] = r.y;
  out[2] = r.z;
}

// Body angular rate at time s: slowly varying in direction so that the
// attitude sweeps the whole sphere of orientations.
void Rate(const MotionPlan &plan, double s, double w[3]) {
  if (s < plan.still_seconds) {
    w[0] = w[1] = w[2] = 0.0;
    return;
  }
  const double u = s - plan.still_seconds;
  w[0] = plan.turn_rate * sin(0.37 * u + 0.3);
  w[1] = plan.turn_rate * sin(0.23 * u + 1.1) * 0.8;
  w[2] = plan.turn_rate * cos(0.17 * u);
}

}  // namespace

std::vector<SimEvent> SimulateMotion(const MotionPlan &plan) {
  std::vector<SimEvent> events;
  const double dt = 0.001;  // integration step, s
  const double g[3] = {0.0, 0.0, 9.81};
  const double b[3] = {plan.field[0], plan.field[1], plan.field[2]};
  Lcg rng(plan.seed);
  Quat q = {1.0, 0.0, 0.0, 0.0};
  double next_acc = 0.0, next_gyr = 0.0, next_mag = 0.0;
  const int steps = static_cast<int>(plan.seconds / dt);
  for (int i = 0; i <= steps; ++i) {
    const double s = i * dt;
    double w[3];
    Rate(plan, s, w);
    const int64_t t = static_cast<int64_t>(plan.start_ns + s * 1e9);
    if (s >= next_acc) {
      double a[3];
      ToBody(q, g, a);
      events.push_back({t, Sensor::kAcc, static_cast<float>(a[0]), static_cast<float>(a[1]),
                        static_cast<float>(a[2])});
      next_acc += 1.0 / plan.acc_hz;
    }
    if (s >= next_gyr) {
      events.push_back({t, Sensor::kGyr, static_cast<float>(w[0]) + plan.gyro_bias[0],
                        static_cast<float>(w[1]) + plan.gyro_bias[1],
                        static_cast<float>(w[2]) + plan.gyro_bias[2]});
      next_gyr += 1.0 / plan.gyr_hz;
    }
    if (s >= next_mag) {
      double m[3];
      ToBody(q, b, m);
      events.push_back({t, Sensor::kMag,
                        static_cast<float>(m[0]) + plan.offset[0] + plan.noise_ut * rng.Uniform(),
                        static_cast<float>(m[1]) + plan.offset[1] + plan.noise_ut * rng.Uniform(),
                        static_cast<float>(m[2]) + plan.offset[2] + plan.noise_ut * rng.Uniform()});
      next_mag += 1.0 / plan.mag_hz;
    }
    // Integrate q' = q * (0, w/2) over one step, then renormalise.
    const Quat dq = {1.0, 0.5 * w[0] * dt, 0.5 * w[1] * dt, 0.5 * w[2] * dt};
    q = Mul(q, dq);
    const double n = sqrt(q.w * q.w + q.x * q.x + q.y * q.y + q.z * q.z);
    q = {q.w / n, q.x / n, q.y / n, q.z / n};
  }
  return events;
}

}  // namespace qvn_test
