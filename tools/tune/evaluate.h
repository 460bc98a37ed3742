// One evaluation of a tunable set on one part of a recording, in a child
// process of its own: the library keeps process-wide state that
// QVN_CaliInitLib does not fully reset (the fusion time, the moving average's
// memory, the offset kept for re-initialisation), so every evaluation starts
// from the load-time state that the parent, which never initialises the
// library, keeps for it. The result is the same whatever ran before.
#ifndef QVNLIB_TOOLS_TUNE_EVALUATE_H
#define QVNLIB_TOOLS_TUNE_EVALUATE_H

#include <string>
#include <vector>

#include "core/event_csv.h"
#include "core/ground_truth.h"
#include "core/tunables.h"
#include "replay/accuracy.h"
#include "replay/library.h"
#include "replay/sysfs_folder.h"

namespace qvn_tools {

// A recording, or a time span of one, with its truth:
// "EVENTS.csv[,from=S][,to=S][,score-from=S][,score-to=S][,gt=FILE][,gt-shift-ms=MS][,warmup=S]"
// (gt.csv beside the events by default; times from the file's first event).
// from/to cut the replayed span, which starts from a fresh library; the
// scored span is score-from..score-to, or from warmup after the replayed
// span's start to its end.
struct Part {
  std::string description, path, gt_path;
  std::string label;  // folder/file and span, for tables
  double from_s = 0, to_s = -1, gt_shift_ms = 0, warmup_s = 10;
  double gt_max_sigma = -1;  // truth samples above this sigma_deg are not scored (< 0: all)
  size_t untrusted = 0;      // truth samples above gt_max_sigma
  double score_from_s = -1, score_to_s = -1;
  std::vector<Event> events;  // the span only
  OrientationTruth truth;
  int64_t t0_ns = 0;       // first event of the span
  int64_t file_t0_ns = 0;  // first event of the recording
};

bool LoadPart(const std::string &description, double default_warmup_s, Part *out,
              std::string *error);

// The qvn_replay options that replay this part the same way.
std::string ReplayArguments(const Part &part);

struct EvalSetup {
  const Library *lib = nullptr;
  SysfsFolder *folder = nullptr;  // cur events write it
  int hw_gyro = 0;
  bool skip_early_gyro = true;
  std::vector<Assignment> base;  // written before the candidate's sets
};

struct PartResult {
  bool ok = false;  // false: the child failed (message on stderr)
  bool constant[kScoredCount] = {};
  ErrorStats stats[kScoredCount];
};

PartResult EvaluatePart(const EvalSetup &setup, const std::vector<Assignment> &candidate,
                        const Part &part);

}  // namespace qvn_tools

#endif  // QVNLIB_TOOLS_TUNE_EVALUATE_H
