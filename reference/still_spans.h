// Spans where the phone lies still, and the gyroscope bias they show.
//
// The recording is cut into blocks of block_s; a block is still when every
// gyroscope axis varies by less than gyro_sd (rad/s, standard deviation; the
// bias itself may be large, so the mean is not looked at) and the
// accelerometer's magnitude by less than acc_sd (m/s^2). Runs of still blocks
// at least min_span_s long, trimmed by one block at each end (the phone is
// put down or picked up there), are the still spans. The bias of a span is
// its mean rate; with spans far enough apart in time a straight line
// b(t) = b0 + drift * (t - t_mid) is fitted, weighted by span length.
#ifndef QVNLIB_REFERENCE_STILL_SPANS_H
#define QVNLIB_REFERENCE_STILL_SPANS_H

#include <cstdint>
#include <utility>
#include <vector>

#include "reference/smoother.h"

namespace qvn_reference {

struct StillOptions {
  double block_s = 0.25;
  double gyro_sd = 0.01;  // rad/s
  double acc_sd = 0.08;   // m/s^2
  double min_span_s = 1.0;
  // A turn at a constant rate keeps the gyroscope and accelerometer steady
  // too; the raw field does not stay put. A block joins a still run only if
  // its mean field is within this of the run's first block (each axis, uT).
  double mag_tolerance_ut = 2.0;
  double min_drift_baseline_s = 30.0;  // spans this far apart give a drift
};

struct StillSpan {
  int64_t from_ns, to_ns;
  Eigen::Vector3d mean_rate;  // rad/s
  Eigen::Vector3d mean_acc;   // m/s^2
};

struct GyroBias {
  bool known = false;                               // at least one still span
  bool drift_known = false;                         // spans far enough apart
  Eigen::Vector3d bias = Eigen::Vector3d::Zero();   // rad/s at t_mid_ns
  Eigen::Vector3d drift = Eigen::Vector3d::Zero();  // rad/s per second
  int64_t t_mid_ns = 0;
  double gravity = 0;  // m/s^2, mean accelerometer magnitude while still
  Eigen::Vector3d At(int64_t t_ns) const {
    return bias + drift * (static_cast<double>(t_ns - t_mid_ns) * 1e-9);
  }
};

// mag: the raw magnetometer (may be empty: then only gyroscope and
// accelerometer decide).
std::vector<StillSpan> FindStillSpans(const std::vector<TimedVec> &acc,
                                      const std::vector<TimedVec> &gyr,
                                      const std::vector<TimedVec> &mag,
                                      const StillOptions &options = StillOptions());

GyroBias BiasFromStillSpans(const std::vector<StillSpan> &spans,
                            const StillOptions &options = StillOptions());

}  // namespace qvn_reference

#endif  // QVNLIB_REFERENCE_STILL_SPANS_H
