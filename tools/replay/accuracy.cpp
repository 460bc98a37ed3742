// Scoring the replayed orientation outputs against the truth.
#include "replay/accuracy.h"

#include <cerrno>
#include <cmath>
#include <cstring>

#include "core/attitude.h"
#include "core/checked.h"
#include "core/output_file.h"

namespace qvn_tools {
namespace {


const char *const kNames[kScoredCount] = {"orientation", "rv", "game_rv", "geomag", "qfusion"};
const char *const kLabels[kScoredCount] = {"Orientation", "RotationVector", "GameRotationVector",
                                           "GeoMagnetic", "Qfusion"};

bool Finite(const float *v, int n) {
  for (int i = 0; i < n; ++i) {
    if (!std::isfinite(v[i])) return false;
  }
  return true;
}

}  // namespace

const char *ScoredOutputName(int output) {
  return output >= 0 && output < kScoredCount ? kNames[output] : "?";
}

int ScoredOutputByName(const std::string &name) {
  for (int k = 0; k < kScoredCount; ++k) {
    if (name == kNames[k]) return k;
  }
  return -1;
}

std::vector<Estimate> EstimatesOf(const std::vector<StepRow> &rows, int output, int hw_gyro) {
  std::vector<Estimate> est;
  est.reserve(rows.size());
  for (const StepRow &r : rows) {
    Estimate e{0, {1, 0, 0, 0}, false};
    const FusionEvent *f = nullptr;
    switch (output) {
      case kScoredOrientation:
        f = &r.fusion[kOrientation];
        e.valid = Finite(f->values, 3);
        if (e.valid) {
          const float *v = f->values;
          e.q = hw_gyro == 1 ? FromGyroPathAngles(v[0], v[1], v[2])
                             : FromCompassPathAngles(v[0], v[1], v[2]);
        }
        break;
      case kScoredRotationVector:
      case kScoredGameRotationVector:
        f = &r.fusion[output == kScoredRotationVector ? kRotationVector : kGameRotationVector];
        e.valid = Finite(f->values, 4);
        if (e.valid) e.q = FromRotationVector(f->values);
        break;
      case kScoredGeoMagnetic:
        f = &r.fusion[kGeoMagnetic];
        e.valid = Finite(f->values, 3);
        if (e.valid) e.q = FromRotationVector3(f->values);
        break;
      case kScoredQfusion:
        // Qfusion carries no time of its own: the last fusion step's, which
        // every fusion output reports.
        f = &r.fusion[kOrientation];
        e.valid = Finite(r.qfusion, 4);
        if (e.valid) e.q = Normalized({r.qfusion[0], r.qfusion[1], r.qfusion[2], r.qfusion[3]});
        break;
      default:
        break;
    }
    e.t_ns = f != nullptr ? f->timestamp : 0;
    // Before the first fusion step the outputs are the load-time values.
    e.valid = e.valid && e.t_ns != 0 && std::isfinite(e.q.w);
    est.push_back(e);
  }
  return est;
}

void ScoringWindow(int64_t file_t0_ns, int64_t replay_t0_ns, double warmup_s, double score_from_s,
                   double score_to_s, int64_t *from_ns, int64_t *to_ns) {
  *from_ns = score_from_s >= 0 ? AddSeconds(file_t0_ns, score_from_s)
                               : AddSeconds(replay_t0_ns, warmup_s);
  *to_ns = score_to_s >= 0 ? AddSeconds(file_t0_ns, score_to_s) : INT64_MAX;
}

AccuracyReport ScoreRun(const std::vector<StepRow> &rows, const OrientationTruth &truth,
                        const AccuracyOptions &o) {
  AccuracyReport rep;
  rep.window.from_ns = o.from_ns;
  rep.window.to_ns = o.to_ns;
  rep.window.lag_ns = o.lag_ns;
  for (int k = 0; k < kScoredCount; ++k) {
    std::vector<Estimate> est = EstimatesOf(rows, k, o.hw_gyro);
    OutputScore &s = rep.out[k];
    s.constant = IsConstant(est);
    if (s.constant) continue;
    s.stats = ScoreEstimates(est, truth, rep.window, o.with_series ? &s.series : nullptr);
    if (o.with_lag && s.stats.scored > 0) {
      // The lag is measured on its own, with no shift applied on top.
      ScoreWindow w = rep.window;
      w.lag_ns = 0;
      s.lag = EstimateLag(est, truth, w);
    }
  }
  return rep;
}

void PrintAccuracy(const AccuracyReport &rep, int64_t t0_ns, FILE *out) {
  const ScoreWindow &w = rep.window;
  std::fprintf(out,
               "accuracy vs truth   outputs from +%.1f s%s; one constant heading offset removed "
               "per output; degrees\n",
               w.from_ns == INT64_MIN ? 0.0 : SecondsBetween(t0_ns, w.from_ns),
               w.lag_ns != 0 ? " (truth shifted by the applied lag)" : "");
  std::fprintf(out, "  %-19s %6s %7s | %6s %6s %6s %6s | %6s %6s %6s | %8s\n", "output", "steps",
               "offset", "hRMS", "hMed", "h95", "hMax", "tRMS", "tMed", "t95", "lag ms");
  for (int k = 0; k < kScoredCount; ++k) {
    const OutputScore &s = rep.out[k];
    if (s.constant) {
      std::fprintf(out, "  %-19s never changes on this path: not scored\n", kLabels[k]);
      continue;
    }
    const ErrorStats &e = s.stats;
    if (e.scored == 0) {
      std::fprintf(out, "  %-19s no step scored (%zu not finite)\n", kLabels[k], e.invalid);
      continue;
    }
    char lag[16] = "-";
    if (s.lag.found) std::snprintf(lag, sizeof lag, "%+.0f", s.lag.lag_ms);
    std::fprintf(out, "  %-19s %6zu %+7.1f | %6.2f %6.2f %6.2f %6.1f | %6.2f %6.2f %6.2f | %8s%s\n",
                 kLabels[k], e.scored, e.offset_deg, e.heading_rms, e.heading_median, e.heading_p95,
                 e.heading_max, e.tilt_rms, e.tilt_median, e.tilt_p95, lag,
                 e.invalid > 0 ? "  (some steps not finite)" : "");
  }
}

bool WriteErrorCsv(const std::string &path, const std::vector<StepRow> &rows,
                   const AccuracyReport &rep, int64_t t0_ns, std::string *error) {
  OutputFile out;
  if (!out.Open(path, error)) return false;
  FILE *f = out.file();
  std::fprintf(f, "t_s,accuracy");
  for (int k = 0; k < kScoredCount; ++k)
    std::fprintf(f, ",%s_heading,%s_tilt", kNames[k], kNames[k]);
  std::fprintf(f, "\n");
  for (size_t i = 0; i < rows.size(); ++i) {
    std::fprintf(f, "%.4f,%d", SecondsBetween(t0_ns, rows[i].t_ns),
                 rows[i].cal.accuracy);
    for (int k = 0; k < kScoredCount; ++k) {
      const ErrorSeries &s = rep.out[k].series;
      bool have = i < s.heading_deg.size() && std::isfinite(s.heading_deg[i]);
      if (have) {
        std::fprintf(f, ",%.3f,%.3f", s.heading_deg[i], s.tilt_deg[i]);
      } else {
        std::fprintf(f, ",,");
      }
    }
    std::fprintf(f, "\n");
  }
  return out.Commit(error);
}

}  // namespace qvn_tools
