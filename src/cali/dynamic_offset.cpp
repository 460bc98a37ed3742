// Dynamic offset tracking of a calibrated field sample (exported for hosts;
// nothing inside the library calls it).
//
// While the device is still (every gyroscope axis below 0.02 rad/s) and the
// field magnitude n is within mag_guardband of the calibrated radius
// (e = |qvn_radius - n| <= guardband, uT), ten such samples are averaged into
// a reference. When the magnitude then strays while still, the extra offset
//   D = m - reference
// is taken and the output becomes the reference plus the change since the
// previous sample. Moving, the last D is removed from straying samples and
// the reference is dropped.
//
// The per-axis change conditions are deliberately not symmetric (dx tests the
// previous sample's three axes, dy and dz mix current and previous axes);
// hosts tuned against exactly this behaviour.
#include <math.h>

#include "cali/cali.h"
#include "math/math.h"

namespace {

constexpr double kStillRate = 0.02;   // rad/s per axis, compared in double
constexpr uint8_t kReferenceCount = 10;
constexpr float kReferenceDivisor = 10.0f;

constexpr int16_t kStill = 0;
constexpr int16_t kMoving = 1;

bool IsStill(const float gyro[3]) {
  return fabs(static_cast<double>(gyro[0])) < kStillRate &&
         fabs(static_cast<double>(gyro[1])) < kStillRate &&
         fabs(static_cast<double>(gyro[2])) < kStillRate;
}

void ClearSum() {
  mag_point[0] = 0.0f;
  mag_point[1] = 0.0f;
  mag_point[2] = 0.0f;
}

}  // namespace

int16_t mag_D_offset(float m[3], const float gyro[3]) {
  const float n = qvn_sqrt(m[0] * m[0] + m[1] * m[1] + m[2] * m[2]);
  const float e = fabsf(qvn_radius - n);

  // Zero components stand for "no previous sample"; which axes are tested
  // differs per axis on purpose.
  const float *p = pre_mag;
  const float dx = (p[0] != 0.0f && p[1] != 0.0f && p[2] != 0.0f) ? m[0] - p[0] : 0.0f;
  const float dy = (m[0] != 0.0f && p[1] != 0.0f && p[2] != 0.0f) ? m[1] - p[1] : 0.0f;
  const float dz = (m[0] != 0.0f && m[1] != 0.0f && p[2] != 0.0f) ? m[2] - p[2] : 0.0f;
  for (int i = 0; i < 3; ++i) pre_mag[i] = m[i];

  if (IsStill(gyro)) {
    // Written as "good" so that a NaN deviation takes the stray branch.
    if (e <= mag_guardband) {
      count_D_offset = static_cast<uint8_t>(count_D_offset + 1);  // wraps after 255
      for (int i = 0; i < 3; ++i) mag_point[i] += m[i];
      if (count_D_offset == kReferenceCount && reset_D_offset == 0) {
        for (int i = 0; i < 3; ++i) avg_mag_point[i] = mag_point[i] / kReferenceDivisor;
        reset_D_offset = 1;
        ClearSum();
        count_D_offset = 0;
      }
      return kStill;
    }
    if (reset_D_offset == 1) {
      for (int i = 0; i < 3; ++i) D_offset[i] = m[i] - avg_mag_point[i];
    }
    // The x change is added before the correction, y and z after it; the
    // order is kept for bit-identical output.
    m[0] = dx + (m[0] - D_offset[0]);
    m[1] = (m[1] - D_offset[1]) + dy;
    m[2] = (m[2] - D_offset[2]) + dz;
    ClearSum();
    count_D_offset = 0;
    return kStill;
  }

  ClearSum();
  if (e > mag_guardband) {
    for (int i = 0; i < 3; ++i) m[i] = m[i] - D_offset[i];
  }
  reset_D_offset = 0;
  count_D_offset = 0;
  return kMoving;
}
