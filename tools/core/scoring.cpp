// Error statistics and lag of an attitude output against the truth.
#include "core/scoring.h"

#include "core/checked.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "core/attitude.h"

namespace qvn_tools {
namespace {

constexpr double kNsPerMs = 1e6;
constexpr double kCoarseStepMs = 10.0;
constexpr double kFineStepMs = 1.0;
// Fewer scored steps than this make the lag cost too noisy to compare.
constexpr size_t kMinStepsForLag = 50;

struct RawErrors {
  std::vector<size_t> index;  // step index of each error
  std::vector<double> heading, tilt;
  size_t invalid = 0;
};

RawErrors Collect(const std::vector<Estimate> &est, const OrientationTruth &truth,
                  const ScoreWindow &w) {
  RawErrors r;
  for (size_t i = 0; i < est.size(); ++i) {
    const Estimate &e = est[i];
    if (e.t_ns < w.from_ns || e.t_ns >= w.to_ns) continue;
    Quat q;
    // Outside the truth (or across a gap in it) a step is neither scored nor
    // counted as invalid: the output is not at fault.
    if (!truth.At(SaturatingAdd(e.t_ns, -w.lag_ns), &q)) continue;
    double h = 0, t = 0;
    if (e.valid) HeadingTiltError(e.q, q, &h, &t);
    if (!e.valid || !std::isfinite(h) || !std::isfinite(t)) {
      r.invalid++;
      continue;
    }
    r.index.push_back(i);
    r.heading.push_back(h);
    r.tilt.push_back(t);
  }
  return r;
}

// Circular mean of angles in degrees: a plain mean of -179 and 179 would be 0,
// the opposite of the offset they share.
double CircularMean(const std::vector<double> &deg) {
  double c = 0, s = 0;
  for (double d : deg) {
    c += std::cos(d / kDegPerRad);
    s += std::sin(d / kDegPerRad);
  }
  return std::atan2(s, c) * kDegPerRad;
}

double Rms(const std::vector<double> &v) {
  double sq = 0;
  for (double x : v) sq += x * x;
  return v.empty() ? 0.0 : std::sqrt(sq / static_cast<double>(v.size()));
}

// Mean squared total error at one lag; +inf when too few steps are scored.
double LagCost(const std::vector<Estimate> &est, const OrientationTruth &truth, ScoreWindow w,
               double lag_ms) {
  w.lag_ns = static_cast<int64_t>(std::llround(lag_ms * kNsPerMs));
  RawErrors r = Collect(est, truth, w);
  if (r.heading.size() < kMinStepsForLag) return std::numeric_limits<double>::infinity();
  // The offset is fitted again at every lag: a shifted truth also changes the
  // mean heading error of a turning recording.
  double offset = CircularMean(r.heading), sum = 0;
  for (size_t k = 0; k < r.heading.size(); ++k) {
    double h = WrapDeg(r.heading[k] - offset);
    sum += h * h + r.tilt[k] * r.tilt[k];
  }
  return sum / static_cast<double>(r.heading.size());
}

}  // namespace

double Quantile(std::vector<double> v, double q) {
  if (v.empty()) return 0;
  size_t k = static_cast<size_t>(std::llround(q * static_cast<double>(v.size() - 1)));
  k = std::min(k, v.size() - 1);
  std::nth_element(v.begin(), v.begin() + static_cast<std::ptrdiff_t>(k), v.end());
  return v[k];
}

ErrorStats ScoreEstimates(const std::vector<Estimate> &est, const OrientationTruth &truth,
                          const ScoreWindow &window, ErrorSeries *series) {
  ErrorStats s;
  RawErrors r = Collect(est, truth, window);
  s.scored = r.heading.size();
  s.invalid = r.invalid;
  if (series != nullptr) {
    series->heading_deg.assign(est.size(), std::nan(""));
    series->tilt_deg.assign(est.size(), std::nan(""));
  }
  if (s.scored == 0) return s;
  s.offset_deg = CircularMean(r.heading);
  // Residuals wrapped again: an error of 179 around an offset of -179 is -2.
  std::vector<double> abs_heading;
  for (size_t k = 0; k < r.heading.size(); ++k) {
    double h = WrapDeg(r.heading[k] - s.offset_deg);
    r.heading[k] = h;
    abs_heading.push_back(std::fabs(h));
    if (series != nullptr) {
      series->heading_deg[r.index[k]] = h;
      series->tilt_deg[r.index[k]] = r.tilt[k];
    }
  }
  s.heading_rms = Rms(r.heading);
  s.heading_median = Quantile(abs_heading, 0.5);
  s.heading_p95 = Quantile(abs_heading, 0.95);
  s.heading_max = *std::max_element(abs_heading.begin(), abs_heading.end());
  s.tilt_rms = Rms(r.tilt);
  s.tilt_median = Quantile(r.tilt, 0.5);
  s.tilt_p95 = Quantile(r.tilt, 0.95);
  s.tilt_max = *std::max_element(r.tilt.begin(), r.tilt.end());
  return s;
}

LagResult EstimateLag(const std::vector<Estimate> &est, const OrientationTruth &truth,
                      const ScoreWindow &window, double min_ms, double max_ms) {
  LagResult out;
  double best = std::numeric_limits<double>::infinity(), best_ms = 0;
  for (double ms = min_ms; ms <= max_ms + 1e-9; ms += kCoarseStepMs) {
    double c = LagCost(est, truth, window, ms);
    if (c < best) best = c, best_ms = ms;
  }
  if (!std::isfinite(best)) return out;
  double centre = best_ms;
  for (double ms = centre - kCoarseStepMs; ms <= centre + kCoarseStepMs + 1e-9; ms += kFineStepMs) {
    if (ms < min_ms || ms > max_ms) continue;
    double c = LagCost(est, truth, window, ms);
    if (c < best) best = c, best_ms = ms;
  }
  // A minimum on the edge of the range is no minimum at all.
  out.found = best_ms > min_ms + kCoarseStepMs && best_ms < max_ms - kCoarseStepMs;
  out.lag_ms = best_ms;
  return out;
}

bool IsConstant(const std::vector<Estimate> &est) {
  const Estimate *first = nullptr;
  for (const Estimate &e : est) {
    if (!e.valid) continue;
    if (first == nullptr) {
      first = &e;
    } else if (e.q.w != first->q.w || e.q.x != first->q.x || e.q.y != first->q.y ||
               e.q.z != first->q.z) {
      return false;
    }
  }
  return first != nullptr;
}

}  // namespace qvn_tools
