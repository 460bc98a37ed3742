// What a phone's sensors report along a motion.
//
//   acc = R^T * ((0, 0, g) + a(t)) + n_a              m/s^2 (a phone at rest reads +g up;
//                                                     a(t) its acceleration while walking)
//   gyr = w_body + bias + n_g                         rad/s
//   mag = W * (R^T * B_earth) + offset + d(t) + c(t) + n_m   uT (uncalibrated)
//
// R is the phone-to-world rotation (east, north, up), B_earth points north and
// down by the inclination, W is the soft-iron matrix, d(t) a disturbance burst
// fixed to the phone, and c(t) = coeff * current / 1000 the field of the
// charging current, which the library's charging compensation removes when
// coeff matches the device variant's coefficients.
#ifndef QVNLIB_TOOLS_SIMULATE_SENSOR_MODEL_H
#define QVNLIB_TOOLS_SIMULATE_SENSOR_MODEL_H

#include <cstdint>
#include <vector>

#include "core/event_csv.h"
#include "core/geometry.h"
#include "simulate/motion.h"

namespace qvn_tools {

struct SimConfig {
  uint64_t seed = 1;
  int64_t start_ns = 1000000000;  // first sample time
  double rate_acc_hz = 100, rate_gyr_hz = 100, rate_mag_hz = 50;
  double field_uT = 45, inclination_deg = 60;
  V3 offset_uT{42, -28, 65};
  double soft_iron[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};            // see DeviceSoftIron
  double noise_acc = 0.02, noise_gyr = 0.002, noise_mag = 0.3;  // standard deviations
  V3 gyro_bias{0.012, -0.006, 0.009};
  bool disturbance = false;
  double disturbance_start_s = 0, disturbance_duration_s = 0;
  V3 disturbance_uT{0, 0, 0};
  bool charging = false;
  double charging_start_s = 0, charging_duration_s = 0;
  int64_t charging_current = 0;
  V3 charging_coeff{0.0004415, 0.0009354, 0.00195};  // uT per current/1000 (non-NFC variant)
};

struct TruthSample {
  int64_t t_ns;
  Quat q;  // phone to world
};

// Events of all sensors merged in time order (at equal times: cur, acc, gyr,
// mag), and the true orientation at every magnetometer sample. Deterministic
// for a given seed.
void Simulate(const Motion &motion, const SimConfig &config, std::vector<Event> *events,
              std::vector<TruthSample> *truth);

// The soft iron of the phone model that the library's device profile was
// tuned for: the inverse of the variant's fixed soft-iron matrix, so that the
// library's own correction undoes it exactly. nfc selects the NFC variant.
void DeviceSoftIron(bool nfc, double out[9]);

// Gaussian numbers from a 64-bit LCG and Box-Muller: the same on every
// platform, unlike the standard library's distributions.
class Gaussian {
 public:
  explicit Gaussian(uint64_t seed) : state_(seed * 2862933555777941757ULL + 3037000493ULL) {}
  double Next();

 private:
  double Uniform();  // (0, 1)
  uint64_t state_;
  bool has_spare_ = false;
  double spare_ = 0;
};

}  // namespace qvn_tools

#endif  // QVNLIB_TOOLS_SIMULATE_SENSOR_MODEL_H
