// What a replay found, in a few lines for a person: timing of the first
// adoption and of accuracy 3, offset and matrices, field magnitudes, the
// accuracy timeline and, with ground truth, offset and heading errors.
#ifndef QVNLIB_TOOLS_REPLAY_SUMMARY_H
#define QVNLIB_TOOLS_REPLAY_SUMMARY_H

#include <cstdio>
#include <string>
#include <vector>

#include "core/event_csv.h"
#include "core/ground_truth.h"
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
  std::string hwname;                    // empty: property not set
  float initial_offset[3] = {0, 0, 0};   // QVN_CaliApiGetOffset right after init
  const OrientationTruth *gt = nullptr;  // may be null
  std::string gt_path;
  const CalibrationTruth *truth = nullptr;  // may be null
  std::string truth_path;
};

// Heading error of the library's azimuth against the true orientation.
struct HeadingStats {
  size_t compared = 0;        // steps scored
  size_t skipped_steep = 0;   // phone tilted more than 60 degrees from flat
  double mean_deg = 0;        // circular mean of the error (constant part)
  double rms_deg = 0;         // RMS after removing the mean
  double median_abs_deg = 0;  // of the error after removing the mean
  double p95_abs_deg = 0;
  double max_abs_deg = 0;
};

// Scores rows[first..] against gt; steps whose orientation output is not
// finite are not scored.
HeadingStats ScoreHeading(const std::vector<StepRow> &rows, size_t first,
                          const OrientationTruth &gt);

void PrintSummary(const SummaryInput &in, FILE *out);

}  // namespace qvn_tools

#endif  // QVNLIB_TOOLS_REPLAY_SUMMARY_H
