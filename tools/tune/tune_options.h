// Command line of qvn_tune and what it prepares before the search: the parts
// of the recordings, the ranges, the library loaded once (and never
// initialised in this process), the private power-supply folder.
#ifndef QVNLIB_TOOLS_TUNE_TUNE_OPTIONS_H
#define QVNLIB_TOOLS_TUNE_TUNE_OPTIONS_H

#include <cstdint>
#include <string>
#include <vector>

#include "tune/evaluate.h"
#include "tune/report.h"
#include "tune/search_space.h"

namespace qvn_tools {

constexpr int kTuneExitRuntime = 1;
constexpr int kTuneExitUsage = 2;

struct TuneOptions {
  std::vector<std::string> train, test, ranges;
  std::vector<Assignment> sets;  // base set, written before every candidate
  std::string lib, hwname, out_set = "tuned_set.txt", out_c = "tuned_set.c", command;
  int hw_gyro = 0, objective = kScoredOrientation;
  bool hwname_set = false, skip_early_gyro = true;
  uint64_t seed = 1;
  size_t budget = 150;
  double time_limit_s = 600, warmup_s = 10, max_tilt = -1, tilt_slack = 1.0;
};

// Returns -1 when the options are good, else the exit code (0 after --help).
int ParseTuneOptions(int argc, char **argv, TuneOptions *o);

int TuneFail(int code, const std::string &message);

struct TuneContext {
  std::vector<Part> train, test;
  std::vector<Dimension> dims;
  Library lib;
  SysfsFolder folder;
  EvalSetup setup;
  std::string replay_args;  // qvn_replay options shared by every part
};

// Returns -1 when ready, else the exit code (a bad range or recording is a
// usage error, a library or folder that cannot be used a runtime one).
int PrepareTune(const TuneOptions &o, TuneContext *ctx, std::string *error);

// The lines that head the report and the set file: command, objective,
// search, and the mean scores of both sets on the training and test parts.
std::vector<std::string> TuneSummaryLines(const TuneOptions &o, const TuneContext &ctx, size_t done,
                                          double base_heading, double best_heading,
                                          double max_tilt, const SetScores &defaults,
                                          const SetScores &tuned);

// The summary plus how a host uses the C function.
std::vector<std::string> CSnippetNote(const std::vector<std::string> &summary);

}  // namespace qvn_tools

#endif  // QVNLIB_TOOLS_TUNE_TUNE_OPTIONS_H
