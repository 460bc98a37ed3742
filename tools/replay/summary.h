// What a replay found, in a few lines for a person: timing of the first
// adoption and of accuracy 3, offset and matrices, field magnitudes, the
// accuracy timeline and, with ground truth, offset and attitude errors.
//
// The steps are folded in one at a time (StepDigest), so that the summary of
// any length of recording takes the same memory.
#ifndef QVNLIB_TOOLS_REPLAY_SUMMARY_H
#define QVNLIB_TOOLS_REPLAY_SUMMARY_H

#include <cstdint>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "core/event_csv.h"
#include "core/ground_truth.h"
#include "replay/accuracy.h"
#include "replay/cali_report.h"
#include "replay/library.h"
#include "replay/replay_loop.h"

namespace qvn_tools {

// Running statistics of the calibration steps.
class StepDigest {
 public:
  // initial: the offset in force right after init; interference_limit: the
  // raw-axis threshold (NaN when the library does not export it).
  StepDigest(const float initial_offset[3], float interference_limit);
  void Add(const StepRow &r);

  struct Moments {
    size_t n = 0;
    double mean = 0, m2 = 0;  // Welford
    void Add(double x);
    double spread() const;
  };

  size_t steps = 0;
  int64_t first_t = 0, last_t = 0, adopted_t = 0, level3_t = 0, nonfinite_t = 0;
  size_t nonfinite_step = 0;
  bool adopted = false, level3 = false, nonfinite = false;
  CaliResult last{};
  Moments raw, cal_all, cal_after;
  size_t over_limit = 0;
  std::vector<std::pair<int64_t, int>> timeline;  // (time, level) of the first changes
  size_t changes = 0;
  double share[4] = {0, 0, 0, 0};
  // Magnetometer intervals: a histogram of 10 us bins up to 10 s (the median)
  // and the largest one.
  std::vector<uint32_t> gap_bins;
  size_t gaps = 0, gaps_beyond = 0;
  double worst_gap = 0;
  int64_t worst_gap_at = 0;
  double MedianGap() const;

 private:
  float initial_[3];
  float limit_;
  int last_accuracy_ = -1;
  int64_t prev_t_ = 0;
};

struct SummaryInput {
  std::string events_path;
  // A streamed replay gives the digest and the replayed events' count and
  // span; a replay held in memory gives its events and rows instead (with
  // the offset in force right after init), and the digest is made here.
  const StepDigest *steps = nullptr;
  size_t events_replayed = 0;
  int64_t first_ns = 0, last_ns = 0;    // first and last replayed event
  const std::vector<Event> *events = nullptr;
  const std::vector<StepRow> *rows = nullptr;
  float initial_offset[3] = {0, 0, 0};
  ReplayCounts counts;
  const Library *lib = nullptr;
  int hw_gyro = 0;
  bool early_gyro_warned = false;       // the --hw-gyro 1 warning went to stderr
  std::string hwname;                   // empty: property not set
  std::vector<std::string> sets;        // --set values in force, as written
  const AccuracyReport *accuracy = nullptr;  // scores against gt.csv; may be null
  std::string gt_path;
  const CalibrationTruth *truth = nullptr;  // may be null
  std::string truth_path;
  const CaliReportInput *cali = nullptr;  // attempts, coverage, offset quality; may be null
};

void PrintSummary(const SummaryInput &in, FILE *out);

}  // namespace qvn_tools

#endif  // QVNLIB_TOOLS_REPLAY_SUMMARY_H
