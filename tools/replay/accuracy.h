// Accuracy of a replay's orientation outputs against the true orientation:
// Orientation, RotationVector, GameRotationVector, GeoMagnetic (as the host
// entries return them) and the internal attitude quaternion Qfusion, each as
// heading and tilt error over time, their statistics and the output's lag.
#ifndef QVNLIB_TOOLS_REPLAY_ACCURACY_H
#define QVNLIB_TOOLS_REPLAY_ACCURACY_H

#include <cstdio>
#include <string>
#include <vector>

#include "core/ground_truth.h"
#include "core/scoring.h"
#include "replay/replay_loop.h"

namespace qvn_tools {

enum ScoredOutput {
  kScoredOrientation,
  kScoredRotationVector,
  kScoredGameRotationVector,
  kScoredGeoMagnetic,
  kScoredQfusion,
  kScoredCount
};

const char *ScoredOutputName(int output);  // "orientation", "rv", "game_rv", "geomag", "qfusion"
// Index by name, or -1.
int ScoredOutputByName(const std::string &name);

// The output of every step as a phone-to-world quaternion, in the frame the
// library defines for it (hw_gyro picks the orientation angles' convention).
std::vector<Estimate> EstimatesOf(const std::vector<StepRow> &rows, int output, int hw_gyro);

struct OutputScore {
  bool constant = false;  // never moved: not produced on this path
  ErrorStats stats;
  LagResult lag;
  ErrorSeries series;
};

struct AccuracyReport {
  ScoreWindow window;
  OutputScore out[kScoredCount];
};

struct AccuracyOptions {
  int hw_gyro = 0;
  int64_t from_ns = INT64_MIN, to_ns = INT64_MAX;  // scored output times
  int64_t lag_ns = 0;                              // applied to every output
  bool with_lag = true;                            // estimate each output's lag (slower)
  bool with_series = false;                        // keep per-step errors
};

// The scored window in output time: from score_from_s seconds after the
// recording's first event when it is >= 0, else warmup_s after the first
// replayed one; up to score_to_s after the recording's first event when >= 0.
void ScoringWindow(int64_t file_t0_ns, int64_t replay_t0_ns, double warmup_s, double score_from_s,
                   double score_to_s, int64_t *from_ns, int64_t *to_ns);

AccuracyReport ScoreRun(const std::vector<StepRow> &rows, const OrientationTruth &truth,
                        const AccuracyOptions &options);

// The report as a table, one line per output.
void PrintAccuracy(const AccuracyReport &report, int64_t t0_ns, FILE *out);

// Per-step errors for plotting: t_s (from t0), accuracy, then heading and tilt
// error of each output (empty where a step was not scored).
bool WriteErrorCsv(const std::string &path, const std::vector<StepRow> &rows,
                   const AccuracyReport &report, int64_t t0_ns, std::string *error);

}  // namespace qvn_tools

#endif  // QVNLIB_TOOLS_REPLAY_ACCURACY_H
