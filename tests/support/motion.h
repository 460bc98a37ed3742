// Deterministic simulated recordings: a phone turning through many
// orientations in a constant Earth field, with a hard-iron offset on the
// magnetometer and a small noise from an LCG. Used by the end-to-end and
// golden tests and by the benchmarks.
#ifndef QVNLIB_TESTS_SUPPORT_MOTION_H
#define QVNLIB_TESTS_SUPPORT_MOTION_H

#include <stdint.h>

#include <vector>

namespace qvn_test {

enum class Sensor { kAcc, kGyr, kMag };

struct SimEvent {
  int64_t t_ns;
  Sensor sensor;
  float x, y, z;
};

struct MotionPlan {
  double seconds = 30.0;
  double acc_hz = 100.0;
  double gyr_hz = 100.0;
  double mag_hz = 50.0;
  double start_ns = 5.0e9;          // first timestamp
  float offset[3] = {35.0f, -22.0f, 61.0f};  // uT, hard iron
  float field[3] = {0.0f, 20.0f, -40.0f};    // uT, world field (east, north, up)
  float noise_ut = 0.15f;           // uT, magnetometer noise amplitude
  float gyro_bias[3] = {0.0f, 0.0f, 0.0f};   // rad/s
  double turn_rate = 1.2;           // rad/s, peak angular rate
  double still_seconds = 2.0;       // still at the start
  uint32_t seed = 1;
};

// Events of all three sensors in time order (ties: acc, gyr, mag).
std::vector<SimEvent> SimulateMotion(const MotionPlan &plan);

}  // namespace qvn_test

#endif  // QVNLIB_TESTS_SUPPORT_MOTION_H
