// The final report of qvn_tune.
#include "tune/report.h"

namespace qvn_tools {
namespace {

const char *const kLabels[kScoredCount] = {"Orientation", "RotationVector", "GameRotationVector",
                                           "GeoMagnetic", "Qfusion"};

void PrintRow(const char *set, const char *kind, const Part &part, const PartResult &r, int k,
              FILE *out) {
  std::fprintf(out, "  %-7s %-5s %-54.54s ", set, kind, part.label.c_str());
  const ErrorStats &s = r.stats[k];
  if (!r.ok || r.constant[k] || s.scored == 0) {
    std::fprintf(out, "%s\n", !r.ok ? "evaluation failed" : "not scored");
    return;
  }
  std::fprintf(out, "%6.2f %6.2f %6.2f | %6.2f %6.2f\n", s.heading_rms, s.heading_median,
               s.heading_p95, s.tilt_rms, s.tilt_p95);
}

}  // namespace

bool MeanRms(const std::vector<PartResult> &parts, int output, double *heading, double *tilt) {
  double h = 0, t = 0;
  for (const PartResult &r : parts) {
    if (!r.ok || r.constant[output] || r.stats[output].scored == 0) return false;
    h += r.stats[output].heading_rms;
    t += r.stats[output].tilt_rms;
  }
  if (parts.empty()) return false;
  *heading = h / static_cast<double>(parts.size());
  *tilt = t / static_cast<double>(parts.size());
  return true;
}

void PrintComparison(const std::vector<Part> &train, const std::vector<Part> &test,
                     const SetScores &defaults, const SetScores &tuned, int objective, FILE *out) {
  for (int k = 0; k < kScoredCount; ++k) {
    std::fprintf(out, "%s%s, degrees (heading after removing one constant offset per part)\n",
                 kLabels[k], k == objective ? " (the objective)" : "");
    std::fprintf(out, "  %-7s %-5s %-54s %6s %6s %6s | %6s %6s\n", "set", "part", "recording",
                 "hRMS", "hMed", "h95", "tRMS", "t95");
    for (size_t i = 0; i < train.size(); ++i) {
      PrintRow("default", "train", train[i], defaults.train[i], k, out);
      PrintRow("tuned", "train", train[i], tuned.train[i], k, out);
    }
    for (size_t i = 0; i < test.size(); ++i) {
      PrintRow("default", "test", test[i], defaults.test[i], k, out);
      PrintRow("tuned", "test", test[i], tuned.test[i], k, out);
    }
  }
}

void PrintReproduction(const std::vector<Part> &train, const std::vector<Part> &test,
                       const std::string &common_args, const std::string &set_file, FILE *out) {
  std::fprintf(out,
               "reproduce with qvn_replay (default set; add --set-file %s for the tuned one):\n",
               set_file.c_str());
  for (const auto *parts : {&train, &test}) {
    for (const Part &p : *parts) {
      std::fprintf(out, "  qvn_replay%s%s\n", common_args.c_str(), ReplayArguments(p).c_str());
    }
  }
}

}  // namespace qvn_tools
