// A reference attitude computed from a recording itself.
//
// Steps, each using the whole recording:
//   1. still spans and the gyroscope bias (and drift) they show;
//   2. magnetometer calibration: from a calibration recording of the same
//      phone when given (its soft iron and field strength kept, the offset
//      refitted on this recording when it sweeps enough directions), else
//      from this recording, else (too few directions) the offset from the
//      field's constant vertical part with the tilt of step 3;
//   3. a gravity-only smoothing pass: tilt, and the dip of every field sample;
//   4. disturbed field samples (magnitude or dip away from the steady values);
//   5. the full smoothing pass with heading from the undisturbed field, run
//      twice (the second from the first's start, so the start's
//      linearisation is right too).
// The result holds phone-to-world (east-north-up) quaternions at a fixed
// rate with a standard deviation in degrees from the smoothed covariance.
#ifndef QVNLIB_REFERENCE_REFERENCE_ATTITUDE_H
#define QVNLIB_REFERENCE_REFERENCE_ATTITUDE_H

#include <cstdint>
#include <string>
#include <vector>

#include "reference/field_checks.h"
#include "reference/mag_calibration.h"
#include "reference/smoother.h"
#include "reference/still_spans.h"

namespace qvn_reference {

struct Streams {
  std::vector<TimedVec> acc, gyr, mag;  // m/s^2, rad/s, uT (raw)
};

struct ReferenceOptions {
  SmootherOptions smoother;
  MagCalOptions magcal;
  StillOptions still;
  DisturbanceOptions disturbance;
  double output_rate_hz = 100;
  // Where the field was disturbed the heading rests on the gyroscope alone;
  // the covariance may still be small after a short span, so such samples
  // report at least this sigma: a threshold below it leaves them out.
  double disturbed_sigma_deg = 5.0;
  // With a calibration recording: refit the offset on this recording (the
  // offset moves with the phone's magnetised parts between recordings).
  bool refit_offset = true;
  // An offset refit is kept only when its spread is below this (uT).
  double max_offset_sigma_ut = 1.0;
};

struct ReferenceSample {
  int64_t t_ns;
  double qw, qx, qy, qz;  // phone -> world (east, north, up)
  double sigma_deg;       // sqrt(tilt^2 + heading^2) standard deviations
  double tilt_sigma_deg, heading_sigma_deg;
  bool disturbed;  // nearest field sample disturbed
};

struct ReferenceResult {
  bool ok = false;
  std::string error;
  std::vector<ReferenceSample> samples;
  MagCalResult cal;
  std::string cal_source;
  std::vector<StillSpan> still;
  GyroBias still_bias;
  Eigen::Vector3d smoothed_bias_start = Eigen::Vector3d::Zero(),
                  smoothed_bias_end = Eigen::Vector3d::Zero();
  double gravity = 0;
  Disturbances disturbances;
  size_t heading_updates = 0;
  std::string report;  // human-readable summary
};

// cal: a calibration recording of the same phone, or nullptr.
ReferenceResult ComputeReference(const Streams &recording, const Streams *cal,
                                 const ReferenceOptions &options = ReferenceOptions());

}  // namespace qvn_reference

#endif  // QVNLIB_REFERENCE_REFERENCE_ATTITUDE_H
