// Scoring an attitude output against the true orientation.
//
// Every scored step is an estimated phone-to-world quaternion with the time
// the output carries. Its error against the truth at that time (minus a lag)
// splits into heading and tilt (attitude.h). One constant heading offset per
// run is removed first: magnetic north, the truth's north and the device frame
// differ by a fixed yaw that no filter can know. The offset is the circular
// mean of the heading errors; RMS, median, 95th percentile and maximum are
// taken of what remains. The lag is the time shift of the truth that
// minimises the mean squared total error (heading residual^2 + tilt^2).
#ifndef QVNLIB_TOOLS_CORE_SCORING_H
#define QVNLIB_TOOLS_CORE_SCORING_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "core/geometry.h"
#include "core/ground_truth.h"

namespace qvn_tools {

struct Estimate {
  int64_t t_ns;  // time the output carries
  Quat q;        // phone to world
  bool valid;    // false: not finite, or no output yet
};

struct ErrorStats {
  size_t scored = 0;      // steps with a valid estimate and truth
  size_t invalid = 0;     // steps in the window whose output was not usable
  double offset_deg = 0;  // removed constant heading offset
  double heading_rms = 0, heading_median = 0, heading_p95 = 0, heading_max = 0;
  double tilt_rms = 0, tilt_median = 0, tilt_p95 = 0, tilt_max = 0;
};

// Per-step errors after the offset is removed; NaN where a step was not scored.
struct ErrorSeries {
  std::vector<double> heading_deg, tilt_deg;
};

struct ScoreWindow {
  int64_t from_ns = INT64_MIN;  // steps whose output time is in [from, to)
  int64_t to_ns = INT64_MAX;
  int64_t lag_ns = 0;  // the estimate at t is compared with truth(t - lag)
};

ErrorStats ScoreEstimates(const std::vector<Estimate> &est, const OrientationTruth &truth,
                          const ScoreWindow &window, ErrorSeries *series = nullptr);

struct LagResult {
  bool found = false;
  double lag_ms = 0;
};

// Searches lags from min_ms to max_ms (10 ms grid, then 1 ms around the best).
// Not found when the window has too few scored steps or when the best lag
// lies on the edge of the range.
LagResult EstimateLag(const std::vector<Estimate> &est, const OrientationTruth &truth,
                      const ScoreWindow &window, double min_ms = -300, double max_ms = 1500);

// True when there are valid estimates and every one equals the first: an
// output that never moves (not produced on this path) is not worth scoring.
bool IsConstant(const std::vector<Estimate> &est);

// q-quantile (0..1) by nearest rank of a copy of v; 0 for an empty v.
double Quantile(std::vector<double> v, double q);

}  // namespace qvn_tools

#endif  // QVNLIB_TOOLS_CORE_SCORING_H
