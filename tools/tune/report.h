// What qvn_tune prints at the end: the default and the tuned set side by side
// on the parts it tuned on and on the parts it did not, every output, and the
// commands that reproduce each number with qvn_replay.
#ifndef QVNLIB_TOOLS_TUNE_REPORT_H
#define QVNLIB_TOOLS_TUNE_REPORT_H

#include <cstdio>
#include <string>
#include <vector>

#include "tune/evaluate.h"

namespace qvn_tools {

struct SetScores {
  std::vector<PartResult> train, test;  // one per part, in the order given
};

// Mean over the parts of the output's heading RMS and tilt RMS; false when a
// part has no scored step of that output.
bool MeanRms(const std::vector<PartResult> &parts, int output, double *heading, double *tilt);

void PrintComparison(const std::vector<Part> &train, const std::vector<Part> &test,
                     const SetScores &defaults, const SetScores &tuned, int objective, FILE *out);

// qvn_replay commands for every part, with and without the set file.
void PrintReproduction(const std::vector<Part> &train, const std::vector<Part> &test,
                       const std::string &common_args, const std::string &set_file, FILE *out);

}  // namespace qvn_tools

#endif  // QVNLIB_TOOLS_TUNE_REPORT_H
