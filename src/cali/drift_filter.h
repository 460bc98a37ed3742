// Drift filter on the calibrated field, the last optional stage of the
// calibration driver (g_dri_filter_set == 1).
//
// With u the calibrated sample, b the previous one and B a per-axis base:
//   x, y:  o = (u - b) * 1.5 + B   while still;  o = B = u   while moving
//   z:     o = (u - b) * 0.5 + B   while still;  o = B = B + (u - b) moving
// "Still" means all three gyroscope axes below 0.05 rad/s. x and y amplify
// the step around a base that follows the field when the device moves; z
// damps it and accumulates every step into its base. The asymmetry is how the
// filter was tuned and is kept. The products are taken in double (the gains
// are double constants) and narrowed once; the differences stay float.
#ifndef QVNLIB_CALI_DRIFT_FILTER_H
#define QVNLIB_CALI_DRIFT_FILTER_H

#include <math.h>

#include "cali/cali.h"

namespace qvn {

constexpr double kDriftGainXY = 1.5;
constexpr double kDriftGainZ = 0.5;
constexpr double kDriftStillRate = 0.05;  // rad/s

// Filters u into qvn_mag and qvn_nonfilter_mag. A fresh adoption (or the first
// call) makes u the reference and passes it through.
inline void DriftFilter(const float u[3], const float gyro[3], bool adopted) {
  float o[3];
  if (adopted || bef_flag == 0) {
    bef_flag = 1;
    for (int a = 0; a < 3; ++a) qvn_mag_bef[a] = qvn_mag_base[a] = o[a] = u[a];
  } else {
    const bool still = static_cast<double>(fabsf(gyro[0])) < kDriftStillRate &&
                       static_cast<double>(fabsf(gyro[1])) < kDriftStillRate &&
                       static_cast<double>(fabsf(gyro[2])) < kDriftStillRate;
    for (int a = 0; a < 3; ++a) {
      const float d = u[a] - qvn_mag_bef[a];
      qvn_mag_bef[a] = u[a];
      const double gain = (a < 2) ? kDriftGainXY : kDriftGainZ;
      o[a] =
          static_cast<float>(static_cast<double>(d) * gain + static_cast<double>(qvn_mag_base[a]));
      if (still) continue;
      // Moving: x and y restart from the sample, z carries the step along.
      o[a] = (a < 2) ? u[a] : qvn_mag_base[a] + d;
      qvn_mag_base[a] = o[a];
    }
  }
  for (int a = 0; a < 3; ++a) qvn_mag[a] = qvn_nonfilter_mag[a] = o[a];
}

}  // namespace qvn

#endif  // QVNLIB_CALI_DRIFT_FILTER_H
