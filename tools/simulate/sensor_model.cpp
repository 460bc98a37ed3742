// Sensor readings along a simulated motion.
#include "simulate/sensor_model.h"

#include <algorithm>
#include <cmath>

namespace qvn_tools {
namespace {

constexpr double kGravity = 9.80665;  // m/s^2
constexpr double kPi = 3.14159265358979323846;
constexpr double kNsPerS = 1e9;

// Sample times of one sensor: start + k / rate, rounded to whole nanoseconds.
std::vector<int64_t> SampleTimes(int64_t start_ns, double rate_hz, double duration_s) {
  std::vector<int64_t> t;
  if (rate_hz <= 0) return t;
  int64_t n = static_cast<int64_t>(std::floor(duration_s * rate_hz)) + 1;
  for (int64_t k = 0; k < n; ++k) {
    t.push_back(start_ns +
                static_cast<int64_t>(std::llround(static_cast<double>(k) * kNsPerS / rate_hz)));
  }
  return t;
}

// Order of sensors at equal times: a new current applies to the sample beside
// it, and the magnetometer comes last, as in the phone recordings.
int Rank(Sensor s) {
  switch (s) {
    case Sensor::kCur:
      return 0;
    case Sensor::kAcc:
      return 1;
    case Sensor::kGyr:
      return 2;
    case Sensor::kMag:
      return 3;
  }
  return 4;
}

bool Within(double t, double start, double duration) { return t >= start && t < start + duration; }

// Fixed soft-iron correction matrices of the two device variants (row-major),
// as the device profile installs them.
constexpr double kNonNfcCorrection[9] = {0.9356, -0.0447, 0.0172, -0.0327, 1.0337,
                                         0.0091, 0.0611,  0.0738, 1.0374};
constexpr double kNfcCorrection[9] = {1.0144,  -0.0366, 0.0109,  -0.0249, 0.9187,
                                      0.00795, 0.00625, -0.0198, 1.0741};

}  // namespace

void DeviceSoftIron(bool nfc, double out[9]) {
  Invert3(nfc ? kNfcCorrection : kNonNfcCorrection, out);
}

double Gaussian::Uniform() {
  state_ = state_ * 6364136223846793005ULL + 1442695040888963407ULL;
  // Top 53 bits, shifted off zero so that the logarithm below stays finite.
  return (static_cast<double>(state_ >> 11) + 0.5) / 9007199254740992.0;
}

double Gaussian::Next() {
  if (has_spare_) {
    has_spare_ = false;
    return spare_;
  }
  double r = std::sqrt(-2.0 * std::log(Uniform()));
  double a = 2.0 * kPi * Uniform();
  spare_ = r * std::sin(a);
  has_spare_ = true;
  return r * std::cos(a);
}

void Simulate(const Motion &motion, const SimConfig &c, std::vector<Event> *events,
              std::vector<TruthSample> *truth) {
  events->clear();
  truth->clear();
  Gaussian noise(c.seed);
  double incl = c.inclination_deg / 180.0 * kPi;
  const V3 earth{0, c.field_uT * std::cos(incl), -c.field_uT * std::sin(incl)};
  const double dur = motion.duration();
  auto seconds = [&c](int64_t t) { return static_cast<double>(t - c.start_ns) / kNsPerS; };
  auto add_noise = [&noise](V3 v, double sd) {
    double nx = noise.Next(), ny = noise.Next(), nz = noise.Next();
    return V3{v.x + sd * nx, v.y + sd * ny, v.z + sd * nz};
  };

  for (int64_t t : SampleTimes(c.start_ns, c.rate_acc_hz, dur)) {
    // A phone at rest reads +g up; walking adds the phone's own acceleration.
    Quat q = motion.At(seconds(t));
    V3 a = add_noise(
        kGravity * RotateInverse(q, {0, 0, 1}) + RotateInverse(q, motion.Acceleration(seconds(t))),
        c.noise_acc);
    events->push_back({t, Sensor::kAcc, a.x, a.y, a.z, 0});
  }
  for (int64_t t : SampleTimes(c.start_ns, c.rate_gyr_hz, dur)) {
    V3 g = add_noise(motion.BodyRate(seconds(t)) + c.gyro_bias, c.noise_gyr);
    events->push_back({t, Sensor::kGyr, g.x, g.y, g.z, 0});
  }
  for (int64_t t : SampleTimes(c.start_ns, c.rate_mag_hz, dur)) {
    double s = seconds(t);
    Quat q = motion.At(s);
    V3 m = MatVec(c.soft_iron, RotateInverse(q, earth)) + c.offset_uT;
    if (c.disturbance && Within(s, c.disturbance_start_s, c.disturbance_duration_s)) {
      m = m + c.disturbance_uT;
    }
    if (c.charging && Within(s, c.charging_start_s, c.charging_duration_s)) {
      m = m + (static_cast<double>(c.charging_current) / 1000.0) * c.charging_coeff;
    }
    m = add_noise(m, c.noise_mag);
    events->push_back({t, Sensor::kMag, m.x, m.y, m.z, 0});
    truth->push_back({t, q});
  }
  if (c.charging) {
    auto at = [&c](double s) {
      return c.start_ns + static_cast<int64_t>(std::llround(s * kNsPerS));
    };
    events->push_back(
        {at(c.charging_start_s), Sensor::kCur, static_cast<double>(c.charging_current), 0, 0, 0});
    events->push_back({at(c.charging_start_s + c.charging_duration_s), Sensor::kCur, 0, 0, 0, 0});
  }
  std::stable_sort(events->begin(), events->end(), [](const Event &a, const Event &b) {
    return a.t_ns != b.t_ns ? a.t_ns < b.t_ns : Rank(a.sensor) < Rank(b.sensor);
  });
}

}  // namespace qvn_tools
