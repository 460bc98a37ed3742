// qvn_tune: searches a set of tunables that lowers one output's heading error
// on recordings with ground truth, keeping its tilt error within a limit, and
// reports the set on parts of recordings it was not tuned on.
//
// Search: the default set first; then random points of the unit cube of the
// ranges (two fifths of the budget); then a (1+1) evolution strategy around
// the best point, its step widened after a success and narrowed after a
// failure. Every number comes from a seeded generator, so a run is the same
// for the same seed and budget; the time limit only stops it early.
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "core/set_file.h"
#include "tune/report.h"
#include "tune/search_space.h"
#include "tune/tune_options.h"

namespace {

using namespace qvn_tools;

constexpr double kRandomShare = 0.4;
constexpr double kInitialStep = 0.15, kMinStep = 0.01, kGrow = 1.4, kShrink = 0.9;
constexpr double kMinCoverage = 0.95;  // share of the default set's scored steps

struct Scored {
  std::vector<double> unit;
  std::vector<Assignment> set;
  std::vector<PartResult> parts;
  double heading = INFINITY, tilt = INFINITY;
  bool feasible = false;
};

class Progress {
 public:
  Progress(size_t total) : total_(total), tty_(isatty(STDERR_FILENO) != 0) {}
  void Show(size_t done, double best, double seconds) {
    int percent = static_cast<int>(100 * done / (total_ == 0 ? 1 : total_));
    if (!tty_ && percent / 10 == last_ / 10 && done != total_) return;
    last_ = percent;
    int filled = percent * 30 / 100;
    std::fprintf(stderr, "%stuning [%.*s%*s] %3d%% %zu/%zu, best %.2f deg, %.0f s%s",
                 tty_ ? "\r" : "", filled, "##############################", 30 - filled, "",
                 percent, done, total_, best, seconds, tty_ ? "" : "\n");
    std::fflush(stderr);
  }
  ~Progress() {
    if (tty_) std::fprintf(stderr, "\n");
  }

 private:
  size_t total_;
  bool tty_;
  int last_ = -100;
};

std::vector<PartResult> EvaluateAll(const EvalSetup &setup, const std::vector<Assignment> &set,
                                    const std::vector<Part> &parts) {
  std::vector<PartResult> r;
  for (const Part &p : parts) r.push_back(EvaluatePart(setup, set, p));
  return r;
}

void Judge(const TuneOptions &o, const std::vector<PartResult> &baseline, double max_tilt,
           Scored *s) {
  s->feasible = MeanRms(s->parts, o.objective, &s->heading, &s->tilt) && s->tilt <= max_tilt;
  // A set that leaves an output NaN or frozen scores fewer steps of it: it
  // must not win by that, whether or not that output is the objective.
  for (size_t i = 0; s->feasible && i < s->parts.size(); ++i) {
    for (int k = 0; k < kScoredCount; ++k) {
      double base = static_cast<double>(baseline[i].stats[k].scored);
      const PartResult &r = s->parts[i];
      double got = r.constant[k] ? 0.0 : static_cast<double>(r.stats[k].scored);
      if (got < kMinCoverage * base) s->feasible = false;
    }
  }
}

}  // namespace

int main(int argc, char **argv) {
  TuneOptions o;
  int code = ParseTuneOptions(argc, argv, &o);
  if (code >= 0) return code;
  std::string error;
  TuneContext ctx;
  code = PrepareTune(o, &ctx, &error);
  if (code >= 0) return TuneFail(code, error);
  const EvalSetup &setup = ctx.setup;
  auto start = std::chrono::steady_clock::now();
  auto elapsed = [&start]() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  };

  Scored base;
  base.parts = EvaluateAll(setup, {}, ctx.train);
  if (!MeanRms(base.parts, o.objective, &base.heading, &base.tilt)) {
    return TuneFail(kTuneExitRuntime,
                    "the default set scores no step of the objective output "
                    "on the training parts (see qvn_replay on them)");
  }
  double max_tilt = o.max_tilt >= 0 ? o.max_tilt : base.tilt + o.tilt_slack;
  Judge(o, base.parts, max_tilt, &base);
  Scored best = base;
  SearchRandom rng(o.seed);
  size_t n_random = static_cast<size_t>(kRandomShare * static_cast<double>(o.budget));
  double step = kInitialStep;
  size_t done = 0;
  Progress bar(o.budget);
  for (; done < o.budget; ++done) {
    if (elapsed() > o.time_limit_s) break;
    bar.Show(done, best.heading, elapsed());
    Scored c;
    bool local = done >= n_random && !best.unit.empty();
    for (size_t k = 0; k < ctx.dims.size(); ++k) {
      double u = local ? best.unit[k] + step * rng.Gaussian() : rng.Uniform();
      c.unit.push_back(u < 0 ? 0 : (u > 1 ? 1 : u));
    }
    if (!Decode(ctx.dims, c.unit, &c.set, &error)) return TuneFail(kTuneExitUsage, error);
    c.parts = EvaluateAll(setup, c.set, ctx.train);
    Judge(o, base.parts, max_tilt, &c);
    bool better = c.feasible && c.heading < best.heading;
    if (local) step = better ? std::fmin(0.5, step * kGrow) : std::fmax(kMinStep, step * kShrink);
    if (better) best = c;
  }
  bar.Show(done, best.heading, elapsed());

  SetScores d, t;
  d.train = base.parts;
  t.train = best.parts;
  d.test = EvaluateAll(setup, {}, ctx.test);
  t.test = EvaluateAll(setup, best.set, ctx.test);
  std::vector<Assignment> full = setup.base;
  full.insert(full.end(), best.set.begin(), best.set.end());

  std::vector<std::string> note =
      TuneSummaryLines(o, ctx, done, base.heading, best.heading, max_tilt, d, t);
  if (!WriteTextFile(o.out_set, SetFileText(full, note), &error) ||
      !WriteTextFile(o.out_c, CSnippetText(full, CSnippetNote(note)), &error)) {
    return TuneFail(kTuneExitRuntime, error);
  }
  for (const std::string &l : note) std::printf("%s\n", l.c_str());
  std::printf("tuned set (%s, also as C in %s):\n", o.out_set.c_str(), o.out_c.c_str());
  if (best.set.empty())
    std::printf("  (no set beat the defaults: the file holds the base set only)\n");
  for (const Assignment &a : best.set) std::printf("  %s\n", FormatAssignment(a).c_str());
  PrintComparison(ctx.train, ctx.test, d, t, o.objective, stdout);
  PrintReproduction(ctx.train, ctx.test, ctx.replay_args, o.out_set, stdout);
  return 0;
}
