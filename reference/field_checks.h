// The calibrated field against the recording's own steady values.
//
// With the attitude's tilt known (a gravity-only smoothing pass gives it; the
// heading does not enter), every calibrated field sample m has a magnitude
// |m| and a dip angle asin(-up . R m / |m|), positive downwards. Both are
// constant in an undisturbed place: their medians over the recording are the
// steady values, and a sample whose magnitude or dip strays further than
// max(k * robust sigma, floor) is disturbed, as is every sample within pad_s
// of one (a disturbance fades in and out).
//
// The same fact fits a hard-iron offset where the samples alone leave it
// free: with u_i the phone-frame up vector at sample i,
//   |raw_i - b| = B   and   u_i . (raw_i - b) = -B sin(dip)
// so a recording that sweeps only a ring of directions (phone turned about
// one axis) still pins the offset along that axis whenever the phone tilts.
#ifndef QVNLIB_REFERENCE_FIELD_CHECKS_H
#define QVNLIB_REFERENCE_FIELD_CHECKS_H

#include <array>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "reference/smoother.h"

namespace qvn_reference {

struct DisturbanceOptions {
  double sigmas = 4.0;
  double magnitude_floor_ut = 2.5;
  double dip_floor_deg = 2.5;
  double pad_s = 0.5;
};

struct Disturbances {
  double steady_magnitude_ut = 0, steady_dip_deg = 0;
  double magnitude_sigma_ut = 0, dip_sigma_deg = 0;
  std::vector<bool> disturbed;  // per magnetometer sample
  std::vector<std::pair<int64_t, int64_t>> spans;
  size_t count = 0;
};

// mag: calibrated field (uT, phone frame); up: phone-frame unit up vector at
// each magnetometer sample (from the tilt).
Disturbances DetectDisturbances(const std::vector<TimedVec> &mag,
                                const std::vector<Eigen::Vector3d> &up,
                                const DisturbanceOptions &options = DisturbanceOptions());

struct VerticalOffsetFit {
  bool ok = false;
  std::string error;
  std::array<double, 3> offset{};
  double radius = 0, dip_deg = 0;
  double residual_rms = 0;  // uT, of both residuals together
  std::vector<bool> inlier;
};

// Hard-iron offset (no soft iron) from raw samples and the up vector at each.
VerticalOffsetFit FitOffsetWithVertical(const std::vector<TimedVec> &raw,
                                        const std::vector<Eigen::Vector3d> &up);

}  // namespace qvn_reference

#endif  // QVNLIB_REFERENCE_FIELD_CHECKS_H
