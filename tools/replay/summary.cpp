// The end-of-replay summary printed on stdout.
#include "replay/summary.h"

#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <cstring>

#include "core/checked.h"
#include "core/geometry.h"

namespace qvn_tools {
namespace {

constexpr double kNsPerS = 1e9;
constexpr size_t kMaxTimelineEntries = 12;

constexpr double kGapBinS = 1e-5;
constexpr size_t kGapBins = 1000000;  // 10 s

double Seconds(int64_t t, int64_t t0) { return SecondsBetween(t0, t); }

const float *FloatVar(const Library &lib, const char *name) {
  return static_cast<const float *>(lib.Symbol(name));
}

void PrintMatrix(FILE *out, const char *label, const float *m) {
  if (m == nullptr) return;
  std::fprintf(out, "%-20s[%9.5f %9.5f %9.5f]\n", label, double{m[0]}, double{m[1]}, double{m[2]});
  for (int r = 1; r < 3; ++r) {
    std::fprintf(out, "%-20s[%9.5f %9.5f %9.5f]\n", "", double{m[3 * r]}, double{m[3 * r + 1]},
                 double{m[3 * r + 2]});
  }
}

void PrintOffsetTruth(const SummaryInput &in, FILE *out, const float hdi[3]) {
  const std::vector<double> &o = *in.truth->Get("offset_uT");
  V3 truth_raw{o[0], o[1], o[2]};
  // The library subtracts its offset after the device's fixed soft-iron
  // matrix, so its offset lives in that corrected frame: compare there, and
  // map it back to the sensor's own frame as well.
  double s[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1}, s_inv[9];
  if (const float *st = FloatVar(*in.lib, "static_sfi")) {
    for (int i = 0; i < 9; ++i) s[i] = st[i];
  }
  V3 found{hdi[0], hdi[1], hdi[2]};
  V3 truth_lib = MatVec(s, truth_raw);
  std::fprintf(out, "%-20s%-28s%-28s%s\n", "offset (uT)", "recovered", "true", "error");
  V3 d = found - truth_lib;
  std::fprintf(out, "%-20s(%7.2f %7.2f %7.2f)    (%7.2f %7.2f %7.2f)    %.2f uT\n",
               "  library frame", found.x, found.y, found.z, truth_lib.x, truth_lib.y, truth_lib.z,
               Norm(d));
  if (Invert3(s, s_inv)) {
    V3 found_raw = MatVec(s_inv, found);
    V3 e = found_raw - truth_raw;
    std::fprintf(out, "%-20s(%7.2f %7.2f %7.2f)    (%7.2f %7.2f %7.2f)    %.2f uT\n",
                 "  sensor frame", found_raw.x, found_raw.y, found_raw.z, truth_raw.x, truth_raw.y,
                 truth_raw.z, Norm(e));
  }
}

}  // namespace

void StepDigest::Moments::Add(double x) {
  if (!std::isfinite(x)) return;
  ++n;
  double d = x - mean;
  mean += d / static_cast<double>(n);
  m2 += d * (x - mean);
}

double StepDigest::Moments::spread() const {
  return n == 0 ? 0.0 : std::sqrt(m2 / static_cast<double>(n));
}

StepDigest::StepDigest(const float initial_offset[3], float interference_limit)
    : gap_bins(kGapBins, 0), limit_(interference_limit) {
  std::memcpy(initial_, initial_offset, sizeof initial_);
}

void StepDigest::Add(const StepRow &r) {
  if (steps == 0) first_t = r.t_ns;
  if (steps > 0) {
    // Magnetometer timing: the library sizes everything from the sample rate.
    double g = SecondsBetween(prev_t_, r.t_ns);
    ++gaps;
    if (g >= 0 && g < kGapBinS * kGapBins) {
      gap_bins[static_cast<size_t>(g / kGapBinS)]++;
    } else {
      ++gaps_beyond;  // out of order (--keep-order) or 10 s and more
    }
    if (g > worst_gap) worst_gap = g, worst_gap_at = prev_t_;
    int a = last_accuracy_;
    if (a >= 0 && a < 4 && g > 0) share[a] += g;
  }
  const CaliResult &c = r.cal;
  const float b[3] = {c.bias_x, c.bias_y, c.bias_z};
  // Adoption: the first step whose offset differs from the one in force after init.
  if (!adopted && std::memcmp(b, initial_, sizeof b) != 0) adopted = true, adopted_t = r.t_ns;
  if (!level3 && c.accuracy == 3) level3 = true, level3_t = r.t_ns;
  // Field magnitudes: a good calibration turns a wide shell far from the
  // origin into a thin one of the local field strength.
  raw.Add(Norm({r.raw[0], r.raw[1], r.raw[2]}));
  double m = Norm({c.x, c.y, c.z});
  cal_all.Add(m);
  if (adopted) cal_after.Add(m);
  if (std::fabs(r.raw[0]) > limit_ || std::fabs(r.raw[1]) > limit_ || std::fabs(r.raw[2]) > limit_)
    ++over_limit;
  // Accuracy timeline: every change of level.
  if (steps == 0 || c.accuracy != last_accuracy_) {
    if (++changes <= kMaxTimelineEntries) timeline.emplace_back(r.t_ns, c.accuracy);
  }
  const float *q = r.fusion[kRotationVector].values;
  const float *o = r.fusion[kOrientation].values;
  if (!nonfinite &&
      !(std::isfinite(q[0] + q[1] + q[2] + q[3]) && std::isfinite(o[0] + o[1] + o[2]))) {
    nonfinite = true;
    nonfinite_t = r.t_ns;
    nonfinite_step = steps;
  }
  last = c;
  last_accuracy_ = c.accuracy;
  prev_t_ = last_t = r.t_ns;
  ++steps;
}

double StepDigest::MedianGap() const {
  // Nearest rank of the middle interval, as the bin's centre.
  size_t rank = gaps / 2, seen = 0;
  for (size_t i = 0; i < gap_bins.size(); ++i) {
    seen += gap_bins[i];
    if (seen > rank) return (static_cast<double>(i) + 0.5) * kGapBinS;
  }
  return worst_gap;
}

void PrintSummary(const SummaryInput &given, FILE *out) {
  SummaryInput in = given;
  const float *limit = FloatVar(*in.lib, "k7q_interference_threshold");
  StepDigest held(in.initial_offset, limit != nullptr ? *limit : NAN);
  if (in.steps == nullptr) {
    if (in.rows != nullptr) {
      for (const StepRow &r : *in.rows) held.Add(r);
    }
    if (in.events != nullptr && !in.events->empty()) {
      in.events_replayed = in.events->size();
      in.first_ns = in.events->front().t_ns;
      in.last_ns = in.events->back().t_ns;
      // The early-gyroscope warning is given for a gyroscope event before the
      // first magnetometer event that was not skipped.
      for (const Event &e : *in.events) {
        if (e.sensor == Sensor::kMag) break;
        if (e.sensor == Sensor::kGyr && in.hw_gyro == 1 && in.counts.skipped_gyro == 0) {
          in.early_gyro_warned = true;
          break;
        }
      }
    }
    in.steps = &held;
  }
  const StepDigest &d = *in.steps;
  const int64_t t0 = in.first_ns;
  const size_t *n = in.counts.per_sensor;
  std::fprintf(out, "== replay summary ==\n");
  std::fprintf(out, "%-20s%s\n", "input", in.events_path.c_str());
  std::fprintf(out, "%-20s%zu (acc %zu, gyr %zu, mag %zu, cur %zu) over %.1f s\n",
               "events replayed", in.events_replayed, n[0], n[1], n[2], n[3],
               in.events_replayed == 0 ? 0.0 : Seconds(in.last_ns, t0));
  if (in.counts.skipped_gyro > 0) {
    std::fprintf(out, "%-20s%zu gyroscope events before the first magnetometer event\n", "skipped",
                 in.counts.skipped_gyro);
  }
  std::fprintf(out, "%-20s%s\n", "library", in.lib->path().c_str());
  std::fprintf(out, "%-20shwGyro %d, ro.boot.hwname %s\n", "host", in.hw_gyro,
               in.hwname.empty() ? "(unset)" : in.hwname.c_str());
  if (d.steps == 0) {
    std::fprintf(out, "%-20sno magnetometer events: nothing was calibrated\n", "result");
    return;
  }
  if (d.gaps > 0) {
    double med = d.MedianGap();
    std::fprintf(out, "%-20smedian interval %.1f ms (%.1f Hz), largest gap %.3f s at +%.1f s\n",
                 "magnetometer", med * 1e3, med > 0 ? 1.0 / med : 0.0, d.worst_gap,
                 Seconds(d.worst_gap_at, t0));
  }
  if (d.adopted) {
    std::fprintf(out, "%-20s+%.2f s\n", "first adoption", Seconds(d.adopted_t, t0));
  } else {
    std::fprintf(out, "%-20snever (the offset in force at init was kept)\n", "first adoption");
  }
  if (d.level3) {
    std::fprintf(out, "%-20s+%.2f s\n", "accuracy 3 at", Seconds(d.level3_t, t0));
  } else {
    std::fprintf(out, "%-20snever reached\n", "accuracy 3 at");
  }
  const float hdi[3] = {d.last.bias_x, d.last.bias_y, d.last.bias_z};
  std::fprintf(out, "%-20s(%.2f, %.2f, %.2f) uT, accuracy %d\n", "final offset", double{hdi[0]},
               double{hdi[1]}, double{hdi[2]}, d.last.accuracy);
  if (in.truth != nullptr && in.truth->HasOffset()) PrintOffsetTruth(in, out, hdi);
  PrintMatrix(out, "soft-iron found", FloatVar(*in.lib, "sfi_array"));
  PrintMatrix(out, "device matrix", FloatVar(*in.lib, "static_sfi"));
  if (const float *r = FloatVar(*in.lib, "qvn_radius")) {
    std::fprintf(out, "%-20s%.2f uT (qvn_radius)\n", "radius in force", double{*r});
  }
  std::fprintf(out, "%-20smean %.2f uT, spread (std) %.2f uT\n", "|field| raw", d.raw.mean,
               d.raw.spread());
  std::fprintf(out, "%-20smean %.2f uT, spread (std) %.2f uT over all steps", "|field| calibrated",
               d.cal_all.mean, d.cal_all.spread());
  if (d.cal_after.n > 0)
    std::fprintf(out, "; after adoption %.2f uT, %.2f uT", d.cal_after.mean, d.cal_after.spread());
  std::fprintf(out, "\n");
  if (limit != nullptr && d.over_limit > 0) {
    std::fprintf(out, "%-20s%zu steps with a raw axis above %.0f uT (k7q_interference_threshold)\n",
                 "interference", d.over_limit, double{*limit});
  }
  std::string timeline;
  for (const auto &[t, level] : d.timeline) {
    char buf[48];
    std::snprintf(buf, sizeof buf, "%s+%.1fs:%d", timeline.empty() ? "" : " ", Seconds(t, t0), level);
    timeline += buf;
  }
  if (d.changes > kMaxTimelineEntries)
    timeline += " ... (" + std::to_string(d.changes) + " changes)";
  std::fprintf(out, "%-20s%s\n", "accuracy timeline", timeline.c_str());
  double total = d.share[0] + d.share[1] + d.share[2] + d.share[3];
  if (total > 0) {
    std::fprintf(out, "%-20s0: %.0f%%  1: %.0f%%  2: %.0f%%  3: %.0f%%\n", "time at level",
                 100 * d.share[0] / total, 100 * d.share[1] / total, 100 * d.share[2] / total,
                 100 * d.share[3] / total);
  }
  if (d.nonfinite) {
    // Name the likely causes that this run actually had.
    std::string why;
    if (in.early_gyro_warned) why += "; see the --hw-gyro 1 warning on stderr";
    if (!in.sets.empty()) {
      why += "; values set:";
      for (size_t k = 0; k < in.sets.size() && k < 4; ++k) why += " " + in.sets[k];
      if (in.sets.size() > 4) why += " ...";
    }
    std::fprintf(out, "%-20snot finite from +%.2f s on (step %zu)%s\n", "fusion outputs",
                 Seconds(d.nonfinite_t, t0), d.nonfinite_step, why.c_str());
  }
  if (in.counts.reinits > 0) {
    std::fprintf(out,
                 "%-20s%zu re-initialisations after outputs that were not finite, the first "
                 "at +%.2f s\n",
                 "remedy", in.counts.reinits, Seconds(in.counts.first_reinit_ns, t0));
  }
  if (in.cali != nullptr) PrintCaliReport(*in.cali, out);
  if (in.accuracy != nullptr) {
    std::fprintf(out, "%-20s%s\n", "ground truth", in.gt_path.c_str());
    PrintAccuracy(*in.accuracy, t0, out);
  }
  if (in.cali != nullptr) PrintCaliVerdict(*in.cali, out);
}

}  // namespace qvn_tools
