// Batch magnetometer calibration: hard iron and soft iron from every sample
// of a recording at once, robust to outliers and disturbed spans.
//
// Model (raw sensor frame, microtesla):
//   raw = soft_iron * field + offset,   |field| = radius,   det(soft_iron) = 1
// so the calibrated field is  field = correction * (raw - offset)  with
// correction = soft_iron^-1. The fit minimises
//   sum_i w_i (|correction * (raw_i - offset)| - radius)^2
// with Cauchy weights w_i (iteratively reweighted) from an algebraic ellipsoid
// (or sphere) start, then marks samples whose residual is far beyond the
// robust spread, and every sample within `disturbed_pad_s` of such a sample,
// as outliers and refits on the inliers. When the data cover too few
// directions to determine a soft-iron matrix (a phone kept flat sweeps only a
// ring), the matrix stays the identity and only offset and radius are fitted.
//
// Double precision, Eigen only: a workstation tool, never the library.
#ifndef QVNLIB_REFERENCE_MAG_CALIBRATION_H
#define QVNLIB_REFERENCE_MAG_CALIBRATION_H

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace qvn_reference {

struct MagSample {
  int64_t t_ns;
  double x, y, z;  // uT, raw sensor frame
};

struct MagCalOptions {
  // Fit a soft-iron matrix: -1 when the data cover enough directions, 0 never
  // (sphere), 1 always.
  int soft_iron = -1;
  // A residual beyond this many robust standard deviations (and beyond
  // min_outlier_ut) makes a sample an outlier.
  double outlier_sigmas = 3.0;
  double min_outlier_ut = 1.5;
  // Samples this close in time to an outlier are left out too: a disturbance
  // rises and falls smoothly, its edges are biased without looking extreme.
  double disturbed_pad_s = 0.25;
  // Coverage is the standard deviation of the raw samples along each
  // principal axis (uT); a full sphere of radius B gives B / sqrt(3) on all
  // three. A soft-iron matrix needs the smallest at least this fraction of
  // the largest; any fit needs the middle one at least min_coverage_ut (two
  // axes swept), else the samples do not say where the centre is.
  double min_soft_iron_coverage_ratio = 0.5;
  double min_coverage_ut = 5.0;
  // Optional prior on the field magnitude (uT; sigma 0 = none). A recording
  // that sweeps only a ring leaves the offset along the ring's axis and the
  // radius free together; a known field strength (another recording of the
  // same place) pins them.
  double prior_radius_ut = 0;
  double prior_radius_sigma_ut = 0;
  // A radius outside this range is no geomagnetic field: the fit is refused.
  double min_radius_ut = 10, max_radius_ut = 120;
};

struct MagCalResult {
  bool ok = false;
  std::string error;                     // why not ok
  std::array<double, 3> offset{};        // uT, raw frame
  std::array<double, 9> soft_iron{};     // row-major, raw = soft_iron * field + offset
  std::array<double, 9> correction{};    // row-major, soft_iron^-1
  double radius = 0;                     // uT, field magnitude
  double residual_rms = 0;               // uT, |field| - radius over the inliers
  double residual_p95 = 0;               // uT, 95th percentile of |residual| over the inliers
  bool soft_iron_fitted = false;         // false: identity (sphere model)
  std::array<double, 3> coverage_ut{};   // raw spread along the principal axes, ascending
  std::array<double, 3> offset_sigma{};  // uT, 1-sigma of the offset from the fit's curvature
  std::vector<bool> inlier;              // one per input sample
  size_t inliers = 0;
  int iterations = 0;

  // Calibrated field of a raw sample.
  std::array<double, 3> Apply(double x, double y, double z) const;
};

// Fits the model to samples (time order is used only for the padding of
// disturbed spans). Needs at least 20 finite samples; non-finite samples are
// outliers.
MagCalResult CalibrateMagnetometer(const std::vector<MagSample> &samples,
                                   const MagCalOptions &options = MagCalOptions());

}  // namespace qvn_reference

#endif  // QVNLIB_REFERENCE_MAG_CALIBRATION_H
