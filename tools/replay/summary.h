// What a replay found, in a few lines for a person: timing of the first
// adoption and of accuracy 3, offset and matrices, field magnitudes, the
// accuracy timeline and, with ground truth, offset and attitude errors.
#ifndef QVNLIB_TOOLS_REPLAY_SUMMARY_H
#define QVNLIB_TOOLS_REPLAY_SUMMARY_H

#include <cstdio>
#include <string>
#include <vector>

#include "core/event_csv.h"
#include "core/ground_truth.h"
#include "replay/accuracy.h"
#include "replay/cali_report.h"
#include "replay/library.h"
#include "replay/replay_loop.h"

namespace qvn_tools {

struct SummaryInput {
  std::string events_path;
  const std::vector<Event> *events = nullptr;
  const std::vector<StepRow> *rows = nullptr;
  ReplayCounts counts;
  const Library *lib = nullptr;
  int hw_gyro = 0;
  std::string hwname;                        // empty: property not set
  float initial_offset[3] = {0, 0, 0};       // QVN_CaliApiGetOffset right after init
  const AccuracyReport *accuracy = nullptr;  // scores against gt.csv; may be null
  std::string gt_path;
  const CalibrationTruth *truth = nullptr;  // may be null
  std::string truth_path;
  const CaliReportInput *cali = nullptr;  // attempts, coverage, offset quality; may be null
};

void PrintSummary(const SummaryInput &in, FILE *out);

}  // namespace qvn_tools

#endif  // QVNLIB_TOOLS_REPLAY_SUMMARY_H
