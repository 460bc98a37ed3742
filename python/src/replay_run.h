// A replay as qvn_replay makes it, for the Python package: the same reader,
// loop, scoring and summary, with the starting state, the log and the
// printed text kept in memory instead of going to the terminal.
#ifndef QVNLIB_PYTHON_REPLAY_RUN_H
#define QVNLIB_PYTHON_REPLAY_RUN_H

#include <android/log.h>

#include <cstdint>
#include <string>
#include <vector>

#include "core/cali_attempts.h"
#include "core/event_csv.h"
#include "core/ground_truth.h"
#include "core/tunables.h"
#include "replay/accuracy.h"
#include "replay/cali_report.h"
#include "replay/library.h"
#include "replay/replay_loop.h"
#include "snapshot.h"

namespace qvn_python {

enum class LogMode { kSilent, kCapture, kStderr };

struct ReplayRequest {
  const std::vector<qvn_tools::Event> *events = nullptr;  // the whole recording, in file order
  std::string events_label;  // file name (or a description) for messages
  int hw_gyro = 0;
  std::vector<qvn_tools::Assignment> sets;  // written before and after initialisation
  bool hwname_set = false;
  std::string hwname;
  bool skip_early_gyro = false, reinit_on_nan = false;
  // Through the host layer, as qvn_replay --host-layer (which ignores the two
  // flags above: holding early gyroscope samples and recovering are its own).
  bool host_layer = false;
  int64_t current = 0;           // battery current in the private power-supply folder
  double from_s = 0, to_s = -1;  // replayed span from the first event (to < 0: the end)
  // Scoring, when truth is given.
  const qvn_tools::OrientationTruth *truth = nullptr;
  std::string truth_label;
  double gt_shift_ms = 0, warmup_s = 10, score_from_s = -1, score_to_s = -1;
  bool lag = true;
  const qvn_tools::CalibrationTruth *calibration = nullptr;  // truth.txt of a simulation
  std::string calibration_label;
  // Offset reference fitted on these events instead of the replayed ones.
  const std::vector<qvn_tools::Event> *reference_events = nullptr;
  std::string reference_label;
  LogMode log_mode = LogMode::kSilent;
  int log_priority = ANDROID_LOG_DEBUG;
};

struct ReplayOutcome {
  std::vector<qvn_tools::StepRow> rows;
  qvn_tools::ReplayCounts counts;
  int64_t file_t0_ns = 0, t0_ns = 0;
  float initial_offset[3] = {0, 0, 0};
  bool scored = false;
  qvn_tools::AccuracyReport accuracy;
  std::vector<qvn_tools::CaliAttempt> attempts;  // every calibration attempt, decoded
  qvn_tools::CollectionStats collection;         // why samples did not make batches
  qvn_tools::LibraryFrame frame;                 // to express centres in the sensor frame
  std::string summary;                // what qvn_replay prints on stdout
  std::vector<std::string> warnings;  // what it warns about the input on stderr
  std::vector<std::string> log;       // the library's log lines, when captured
};

class Session {
 public:
  // Loads the library and its host stand-in and keeps their load-time state.
  bool Load(const std::string &path, std::string *error);
  const qvn_tools::Library &lib() const { return lib_; }
  size_t state_bytes() const { return state_ != nullptr ? state_->bytes() : 0; }

  // Puts the library back into the state a fresh process loads it in: every
  // variable as defined, no property set, power-supply files read from root.
  // The one place that decides how a replay starts.
  void StartFromLoadTime(const char *sysfs_root) const;

  // Replays from the load-time state. False with *error when the replay
  // could not be made (a bad current, a folder that cannot be written).
  bool Replay(const ReplayRequest &request, ReplayOutcome *outcome, std::string *error) const;

 private:
  qvn_tools::Library lib_;
  const LoadTimeState *state_ = nullptr;
  void (*property_clear_)() = nullptr;
  void (*property_unreadable_)(int) = nullptr;
};

// Scores rows as qvn_replay --gt does; the table text goes to *table.
qvn_tools::AccuracyReport ScoreRows(const std::vector<qvn_tools::StepRow> &rows,
                                    const qvn_tools::OrientationTruth &truth,
                                    const qvn_tools::AccuracyOptions &options, int64_t t0_ns,
                                    std::string *table);

}  // namespace qvn_python

#endif  // QVNLIB_PYTHON_REPLAY_RUN_H
