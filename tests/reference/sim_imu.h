// A small recording simulator with exact truth for the reference-attitude
// tests: the phone turns about all three axes at a few incommensurate rates
// and shakes along all three world axes (zero mean velocity, like a hand),
// with an optional still start, a gyroscope bias that drifts, and a field
// disturbance fixed to the phone for a span. Integrated at 1 kHz in double
// precision; noise from a fixed linear congruential generator.
#ifndef QVNLIB_TESTS_REFERENCE_SIM_IMU_H
#define QVNLIB_TESTS_REFERENCE_SIM_IMU_H

#include <Eigen/Dense>
#include <Eigen/Geometry>
#include <cmath>
#include <cstdint>
#include <utility>
#include <vector>

#include "reference/reference_attitude.h"

namespace qvn_sim {

struct SimScene {
  double seconds = 90;
  double still_start_s = 0;
  Eigen::Vector3d bias = Eigen::Vector3d(0.02, -0.01, 0.03);  // rad/s
  Eigen::Vector3d drift = Eigen::Vector3d::Zero();            // rad/s per s
  double disturb_from_s = -1, disturb_s = 0;                  // span of a phone-fixed field
  Eigen::Vector3d disturb_ut = Eigen::Vector3d(25, -15, 10);
  Eigen::Vector3d offset = Eigen::Vector3d(40, -25, 60);
  Eigen::Matrix3d soft_iron =
      (Eigen::Matrix3d() << 1.05, 0.03, -0.02, 0.03, 0.97, 0.01, -0.02, 0.01, 0.99).finished();
  double motion_scale = 1.0;  // rotation rates and shaking
  uint64_t seed = 7;
};

struct SimRecording {
  qvn_reference::Streams streams;
  std::vector<std::pair<int64_t, Eigen::Quaterniond>> truth;  // at magnetometer samples
  std::vector<bool> disturbed;                                // per magnetometer sample
};

class Lcg {
 public:
  explicit Lcg(uint64_t seed) : s_(seed * 6364136223846793005ULL + 1442695040888963407ULL) {}
  double Uniform() {
    s_ = s_ * 6364136223846793005ULL + 1442695040888963407ULL;
    return (static_cast<double>(s_ >> 11) + 0.5) / 9007199254740992.0;
  }
  double Gauss() {
    return std::sqrt(-2.0 * std::log(Uniform())) * std::cos(6.283185307179586 * Uniform());
  }
  Eigen::Vector3d Gauss3(double sd) { return sd * Eigen::Vector3d(Gauss(), Gauss(), Gauss()); }

 private:
  uint64_t s_;
};

inline SimRecording Simulate(const SimScene &scene) {
  constexpr double kPi2 = 6.283185307179586;
  constexpr int64_t kStepNs = 1000000;  // 1 kHz integration
  const Eigen::Vector3d field_world = 45.0 * Eigen::Vector3d(0, std::cos(60.0 / 57.29577951308232),
                                                             -std::sin(60.0 / 57.29577951308232));
  const Eigen::Vector3d g_up(0, 0, 9.81);
  Lcg rng(scene.seed);
  SimRecording rec;
  Eigen::Quaterniond q(Eigen::AngleAxisd(0.4, Eigen::Vector3d(0.3, -0.5, 0.8).normalized()));
  const int64_t t0 = 1000000000;
  const int64_t n = static_cast<int64_t>(scene.seconds * 1000);
  for (int64_t k = 0; k <= n; ++k) {
    const double t = static_cast<double>(k) * 1e-3;
    // Motion fades in over a second after the still start.
    double on = std::clamp(t - scene.still_start_s, 0.0, 1.0) * scene.motion_scale;
    Eigen::Vector3d w =
        on * Eigen::Vector3d(
                 1.2 * std::sin(kPi2 * 0.13 * t + 0.3) + 0.6 * std::sin(kPi2 * 0.71 * t),
                 1.0 * std::sin(kPi2 * 0.17 * t + 1.0) + 0.5 * std::sin(kPi2 * 0.53 * t + 2.0),
                 0.8 * std::sin(kPi2 * 0.07 * t + 0.5) + 0.4 * std::sin(kPi2 * 0.91 * t));
    // Shaking: p = A sin(2 pi f t), a = -(2 pi f)^2 p.
    const double f[3] = {0.9, 1.1, 1.8}, amp[3] = {0.15, 0.10, 0.05};
    Eigen::Vector3d a_world;
    for (int j = 0; j < 3; ++j)
      a_world[j] = -on * amp[j] * (kPi2 * f[j]) * (kPi2 * f[j]) * std::sin(kPi2 * f[j] * t + j);
    const int64_t tn = t0 + k * kStepNs;
    const Eigen::Matrix3d r = q.toRotationMatrix();
    if (k % 10 == 0) {  // 100 Hz accelerometer and gyroscope
      Eigen::Vector3d bias = scene.bias + scene.drift * t;
      rec.streams.gyr.push_back({tn, w + bias + rng.Gauss3(0.002)});
      rec.streams.acc.push_back({tn, r.transpose() * (a_world + g_up) + rng.Gauss3(0.02)});
    }
    if (k % 20 == 0) {  // 50 Hz magnetometer
      bool dist = t >= scene.disturb_from_s && t < scene.disturb_from_s + scene.disturb_s;
      Eigen::Vector3d m = scene.soft_iron * (r.transpose() * field_world) + scene.offset +
                          (dist ? scene.disturb_ut : Eigen::Vector3d::Zero()) + rng.Gauss3(0.3);
      rec.streams.mag.push_back({tn, m});
      rec.truth.push_back({tn, q});
      rec.disturbed.push_back(dist);
    }
    // Body rates turn the phone: q' = q Exp(w dt).
    Eigen::Vector3d dphi = w * 1e-3;
    if (dphi.norm() > 0)
      q = (q * Eigen::Quaterniond(Eigen::AngleAxisd(dphi.norm(), dphi.normalized()))).normalized();
  }
  return rec;
}

}  // namespace qvn_sim

#endif  // QVNLIB_TESTS_REFERENCE_SIM_IMU_H
