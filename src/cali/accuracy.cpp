// Accuracy grading of the calibrated field.
//
// The Earth's field is about 45 uT everywhere the device is used. A calibrated
// field whose magnitude m stays away from it means the offset in force no
// longer fits (a new magnet nearby, a changed case), so the level drops:
//   m > m_interf_mag_threshold                         -> 0 at once
//   level 3, m outside 45 +- range1 (but inside range2) -> counter1 ... -> 2
//   level >= 2, m outside 45 +- range2                  -> counter2 ... -> 1
// Both bands are capped above by the threshold and below by zero. The grader
// never raises a level; only a new calibration does.
//
// The counters are deliberately not counters of consecutive samples: an
// out-of-band sample of one kind leaves the other counter alone, and only a
// sample inside the narrow band (or a level below 2) clears both.
#include "cali/cali.h"
#include "math/math.h"

namespace {

constexpr float kEarthField = 45.0f;  // uT, reference magnitude
constexpr float kNoField = 0.0f;      // uT, lower cap of both bands

constexpr int16_t kLevelUnreliable = 0;
constexpr int16_t kLevelLow = 1;
constexpr int16_t kLevelMedium = 2;
constexpr int16_t kLevelHigh = 3;

float CapAbove(float v, float cap) { return v > cap ? cap : v; }
float CapBelow(float v, float cap) { return v < cap ? cap : v; }

}  // namespace

int16_t qvn_accuracy_level(const float mag[3], int16_t level) {
  const float m = qvn_sqrt(mag[0] * mag[0] + mag[1] * mag[1] + mag[2] * mag[2]);
  const int16_t current = (m > m_interf_mag_threshold) ? kLevelUnreliable : level;

  const float hi2 = CapAbove(kEarthField + m_interf_enviro_range2, m_interf_mag_threshold);
  const float lo2 = CapBelow(kEarthField - m_interf_enviro_range2, kNoField);
  const float hi1 = CapAbove(kEarthField + m_interf_enviro_range1, m_interf_mag_threshold);
  const float lo1 = CapBelow(kEarthField - m_interf_enviro_range1, kNoField);

  // First matching case only.
  if (current < kLevelMedium) {
    m_interf_enviro_counter1 = 0;
    m_interf_enviro_counter2 = 0;
  } else if (m > hi2 || m < lo2) {
    m_interf_enviro_counter2 = static_cast<int16_t>(m_interf_enviro_counter2 + 1);
  } else if (current < kLevelHigh || (lo1 <= m && m <= hi1)) {
    m_interf_enviro_counter1 = 0;
    m_interf_enviro_counter2 = 0;
  } else {
    m_interf_enviro_counter1 = static_cast<int16_t>(m_interf_enviro_counter1 + 1);
  }

  // The wide band wins over the narrow one when both have run out.
  if (m_interf_enviro_counter2 > m_interf_enviro_threshold_2) {
    m_interf_enviro_counter2 = 0;
    return kLevelLow;
  }
  if (m_interf_enviro_counter1 > m_interf_enviro_threshold_1) {
    m_interf_enviro_counter1 = 0;
    return kLevelMedium;
  }
  return current;
}
