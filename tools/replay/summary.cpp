// The end-of-replay summary printed on stdout.
#include "replay/summary.h"

#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <cstring>

#include "core/geometry.h"

namespace qvn_tools {
namespace {

constexpr double kNsPerS = 1e9;
constexpr size_t kMaxTimelineEntries = 12;

struct MeanSpread {
  size_t n = 0;
  double mean = 0, spread = 0;
};

MeanSpread Stats(const std::vector<double> &v) {
  MeanSpread s;
  for (double x : v) {
    if (!std::isfinite(x)) continue;
    s.n++;
    s.mean += x;
  }
  if (s.n == 0) return s;
  s.mean /= static_cast<double>(s.n);
  for (double x : v) {
    if (std::isfinite(x)) s.spread += (x - s.mean) * (x - s.mean);
  }
  s.spread = std::sqrt(s.spread / static_cast<double>(s.n));
  return s;
}

double Percentile(std::vector<double> v, double q) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  size_t k = static_cast<size_t>(q * static_cast<double>(v.size() - 1) + 0.5);
  return v[std::min(k, v.size() - 1)];
}

double Seconds(int64_t t, int64_t t0) { return static_cast<double>(t - t0) / kNsPerS; }

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

void PrintSummary(const SummaryInput &in, FILE *out) {
  const std::vector<StepRow> &rows = *in.rows;
  const std::vector<Event> &ev = *in.events;
  int64_t t0 = ev.empty() ? 0 : ev.front().t_ns;
  const size_t *n = in.counts.per_sensor;
  std::fprintf(out, "== replay summary ==\n");
  std::fprintf(out, "%-20s%s\n", "input", in.events_path.c_str());
  std::fprintf(out, "%-20s%zu (acc %zu, gyr %zu, mag %zu, cur %zu) over %.1f s\n",
               "events replayed", ev.size(), n[0], n[1], n[2], n[3],
               ev.empty() ? 0.0 : Seconds(ev.back().t_ns, t0));
  if (in.counts.skipped_gyro > 0) {
    std::fprintf(out, "%-20s%zu gyroscope events before the first magnetometer event\n", "skipped",
                 in.counts.skipped_gyro);
  }
  std::fprintf(out, "%-20s%s\n", "library", in.lib->path().c_str());
  std::fprintf(out, "%-20shwGyro %d, ro.boot.hwname %s\n", "host", in.hw_gyro,
               in.hwname.empty() ? "(unset)" : in.hwname.c_str());
  if (rows.empty()) {
    std::fprintf(out, "%-20sno magnetometer events: nothing was calibrated\n", "result");
    return;
  }
  // Magnetometer timing: the library sizes everything from the sample rate.
  std::vector<double> gaps;
  double worst = 0, worst_at = 0;
  for (size_t i = 1; i < rows.size(); ++i) {
    double g = static_cast<double>(rows[i].t_ns - rows[i - 1].t_ns) / kNsPerS;
    gaps.push_back(g);
    if (g > worst) worst = g, worst_at = Seconds(rows[i - 1].t_ns, t0);
  }
  if (!gaps.empty()) {
    double med = Percentile(gaps, 0.5);
    std::fprintf(out, "%-20smedian interval %.1f ms (%.1f Hz), largest gap %.3f s at +%.1f s\n",
                 "magnetometer", med * 1e3, med > 0 ? 1.0 / med : 0.0, worst, worst_at);
  }
  // Adoption: the first step whose offset differs from the one in force after init.
  size_t adopted = rows.size(), level3 = rows.size();
  for (size_t i = 0; i < rows.size(); ++i) {
    const float b[3] = {rows[i].cal.bias_x, rows[i].cal.bias_y, rows[i].cal.bias_z};
    if (adopted == rows.size() && std::memcmp(b, in.initial_offset, sizeof b) != 0) adopted = i;
    if (level3 == rows.size() && rows[i].cal.accuracy == 3) level3 = i;
  }
  if (adopted < rows.size()) {
    std::fprintf(out, "%-20s+%.2f s\n", "first adoption", Seconds(rows[adopted].t_ns, t0));
  } else {
    std::fprintf(out, "%-20snever (the offset in force at init was kept)\n", "first adoption");
  }
  if (level3 < rows.size()) {
    std::fprintf(out, "%-20s+%.2f s\n", "accuracy 3 at", Seconds(rows[level3].t_ns, t0));
  } else {
    std::fprintf(out, "%-20snever reached\n", "accuracy 3 at");
  }
  const CaliResult &last = rows.back().cal;
  const float hdi[3] = {last.bias_x, last.bias_y, last.bias_z};
  std::fprintf(out, "%-20s(%.2f, %.2f, %.2f) uT, accuracy %d\n", "final offset", double{hdi[0]},
               double{hdi[1]}, double{hdi[2]}, last.accuracy);
  if (in.truth != nullptr && in.truth->HasOffset()) PrintOffsetTruth(in, out, hdi);
  PrintMatrix(out, "soft-iron found", FloatVar(*in.lib, "sfi_array"));
  PrintMatrix(out, "device matrix", FloatVar(*in.lib, "static_sfi"));
  if (const float *r = FloatVar(*in.lib, "qvn_radius")) {
    std::fprintf(out, "%-20s%.2f uT (qvn_radius)\n", "radius in force", double{*r});
  }
  // Field magnitudes: a good calibration turns a wide shell far from the
  // origin into a thin one of the local field strength.
  std::vector<double> raw_mag, cal_all, cal_after;
  size_t over = 0;
  const float *limit = FloatVar(*in.lib, "k7q_interference_threshold");
  for (size_t i = 0; i < rows.size(); ++i) {
    const StepRow &r = rows[i];
    raw_mag.push_back(Norm({r.raw[0], r.raw[1], r.raw[2]}));
    double c = Norm({r.cal.x, r.cal.y, r.cal.z});
    cal_all.push_back(c);
    if (i >= adopted) cal_after.push_back(c);
    if (limit != nullptr && (std::fabs(r.raw[0]) > *limit || std::fabs(r.raw[1]) > *limit ||
                             std::fabs(r.raw[2]) > *limit)) {
      over++;
    }
  }
  MeanSpread sr = Stats(raw_mag), sa = Stats(cal_all), sc = Stats(cal_after);
  std::fprintf(out, "%-20smean %.2f uT, spread (std) %.2f uT\n", "|field| raw", sr.mean, sr.spread);
  std::fprintf(out, "%-20smean %.2f uT, spread (std) %.2f uT over all steps", "|field| calibrated",
               sa.mean, sa.spread);
  if (sc.n > 0) std::fprintf(out, "; after adoption %.2f uT, %.2f uT", sc.mean, sc.spread);
  std::fprintf(out, "\n");
  if (limit != nullptr && over > 0) {
    std::fprintf(out, "%-20s%zu steps with a raw axis above %.0f uT (k7q_interference_threshold)\n",
                 "interference", over, double{*limit});
  }
  // Accuracy timeline: every change of level, and the share of time at each.
  std::string timeline;
  double share[4] = {0, 0, 0, 0};
  size_t changes = 0;
  for (size_t i = 0; i < rows.size(); ++i) {
    int a = rows[i].cal.accuracy;
    if (i + 1 < rows.size() && a >= 0 && a < 4) share[a] += Seconds(rows[i + 1].t_ns, rows[i].t_ns);
    if (i > 0 && a == rows[i - 1].cal.accuracy) continue;
    if (++changes <= kMaxTimelineEntries) {
      char buf[48];
      std::snprintf(buf, sizeof buf, "%s+%.1fs:%d", timeline.empty() ? "" : " ",
                    Seconds(rows[i].t_ns, t0), a);
      timeline += buf;
    }
  }
  if (changes > kMaxTimelineEntries) timeline += " ... (" + std::to_string(changes) + " changes)";
  std::fprintf(out, "%-20s%s\n", "accuracy timeline", timeline.c_str());
  double total = share[0] + share[1] + share[2] + share[3];
  if (total > 0) {
    std::fprintf(out, "%-20s0: %.0f%%  1: %.0f%%  2: %.0f%%  3: %.0f%%\n", "time at level",
                 100 * share[0] / total, 100 * share[1] / total, 100 * share[2] / total,
                 100 * share[3] / total);
  }
  for (size_t i = 0; i < rows.size(); ++i) {
    const float *q = rows[i].fusion[kRotationVector].values;
    const float *o = rows[i].fusion[kOrientation].values;
    if (std::isfinite(q[0] + q[1] + q[2] + q[3]) && std::isfinite(o[0] + o[1] + o[2])) continue;
    std::fprintf(out, "%-20snot finite from +%.2f s on (step %zu)%s\n", "fusion outputs",
                 Seconds(rows[i].t_ns, t0), i,
                 in.hw_gyro == 1 ? "; see the --hw-gyro 1 warning on stderr" : "");
    break;
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
