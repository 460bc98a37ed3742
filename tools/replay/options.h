// Command line of qvn_replay.
#ifndef QVNLIB_TOOLS_REPLAY_OPTIONS_H
#define QVNLIB_TOOLS_REPLAY_OPTIONS_H

#include <android/log.h>

#include <cstdint>
#include <string>
#include <vector>

#include "core/cli.h"
#include "core/tunables.h"

namespace qvn_tools {

struct ReplayOptions {
  std::string events, lib, hwname, out, sysfs_root, gt, truth, errors_out;
  std::string attempts_out, quality_out, reference_events;
  int hw_gyro = 0;
  bool hwname_set = false, list = false, skip_early_gyro = false, reinit_on_nan = false;
  bool no_truth = false, summary = true, lag = true;
  bool host_layer = false;  // drive the library through the host layer
  int log_priority = ANDROID_LOG_SILENT;
  bool current_set = false;
  int64_t current = 0;
  double gt_shift_ms = 0;
  double from_s = 0, to_s = -1;               // part of the recording replayed (to < 0: the end)
  double warmup_s = 10;                       // not scored after the first replayed event
  double score_from_s = -1, score_to_s = -1;  // scored span, from the file's first event
  std::vector<Assignment> sets;               // --set and --set-file, in command-line order
  bool allow_nonfinite = false;               // non-finite inputs and sets reach the library
  bool sort = false;                          // events sorted by time before the replay
  bool keep_order = false;                    // events out of time order replayed as they stand
  bool window_set = false;                    // --warmup, --score-from or --score-to given
};

// Parses argv. Returns -1 when the options are good, else the exit code
// (0 after --help or --version), having printed the reason on stderr.
int ParseReplayOptions(int argc, char **argv, ReplayOptions *o);

// Prints "qvn_replay: message" on stderr and returns code.
int ReplayFail(int code, const std::string &message);

}  // namespace qvn_tools

#endif  // QVNLIB_TOOLS_REPLAY_OPTIONS_H
