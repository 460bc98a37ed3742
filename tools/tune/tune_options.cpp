// qvn_tune's options, preparation and summary lines.
#include "tune/tune_options.h"

#include <android/log.h>

#include <cstdio>

#include "core/cli.h"
#include "core/event_csv.h"
#include "core/output_file.h"
#include "core/set_file.h"

namespace qvn_tools {
namespace {

const char kDescription[] =
    "Searches tunable values that lower the heading RMS error of one output on the\n"
    "training recordings while its tilt RMS error stays within a limit, then scores the\n"
    "default and the tuned set on the test recordings, which the search never saw.\n"
    "Each evaluation replays a recording in a child process from the library's load-\n"
    "time state, exactly as qvn_replay does (sets written before and after init).\n"
    "\n"
    "A recording REC is\n"
    "  EVENTS.csv[,from=S][,to=S][,score-from=S][,score-to=S][,gt=FILE][,gt-shift-ms=MS][,warmup=S]\n"
    "a recording or a span of it: from/to cut the replayed span (seconds from the\n"
    "file's first event, replayed from a fresh library); score-from/score-to the\n"
    "scored span (same clock; default: from warmup after the replayed span's start\n"
    "to its end); gt.csv beside the events by default.";
const char kFooter[] =
    "Exit status: 0 done, 1 the library or a file could not be used, 2 bad options or\n"
    "bad input (the message names the file, line and value, or the option).";

std::string Mean(const std::vector<PartResult> &parts, int output) {
  double h = 0, t = 0;
  if (!MeanRms(parts, output, &h, &t)) return "not scored";
  char buf[96];
  std::snprintf(buf, sizeof buf, "heading RMS %.2f deg, tilt RMS %.2f deg", h, t);
  return buf;
}

}  // namespace

int TuneFail(int code, const std::string &message) {
  std::fprintf(stderr, "qvn_tune: %s\n", message.c_str());
  return code;
}

int ParseTuneOptions(int argc, char **argv, TuneOptions *o) {
  o->command = "qvn_tune";
  for (int i = 1; i < argc; ++i) o->command += std::string(" ") + argv[i];
  CLI::App app(kDescription, "qvn_tune");
  SetUpApp(&app, "qvn_tune " QVN_VERSION);
  app.footer(kFooter);
  app.add_option("--train", o->train, "a training recording (repeatable; at least one)")
      ->type_name("REC")
      ->allow_extra_args(false);
  app.add_option("--test", o->test, "a test recording, never seen by the search (repeatable)")
      ->type_name("REC")
      ->allow_extra_args(false);
  app.add_option("--range", o->ranges,
                 "NAME=LO:HI, NAME=LO:HI:log, NAME=LO:HI:int or NAME=V1|V2|... (repeatable)")
      ->type_name("R")
      ->allow_extra_args(false);
  std::string preset, objective = "orientation";
  app.add_option("--preset", preset,
                 "fusion: the fusion ranges (weight ramp deltas, normal correction weights, "
                 "compensation mode, moving average, rotation vector source, soft gyroscope "
                 "smoothing ratios)")
      ->type_name("fusion");
  app.add_option("--objective", objective,
                 "orientation (default), rv, game_rv, geomag or qfusion")
      ->type_name("OUT");
  app.add_option("--max-tilt-rms", o->max_tilt,
                 "tilt limit (default: the default set's tilt RMS + slack)")
      ->type_name("DEG")
      ->check(NumberIn(0, 180, "degrees"));
  app.add_option("--tilt-slack", o->tilt_slack, "(default 1)")
      ->type_name("DEG")
      ->check(NumberIn(0, 180, "degrees"));
  app.add_option("--seed", o->seed, "search seed (default 1)")
      ->type_name("N")
      ->check(IntegerIn(0, INT64_MAX));
  app.add_option("--budget", o->budget, "evaluations after the default set (default 150)")
      ->type_name("N")
      ->check(IntegerIn(0, 1000000));
  app.add_option("--time-limit", o->time_limit_s, "stop the search after S seconds (default 600)")
      ->type_name("S")
      ->check(NumberIn(0.001, 1e7, "seconds"));
  app.add_option("--warmup", o->warmup_s, "not scored after a part's first event (default 10)")
      ->type_name("S")
      ->check(NumberIn(0, 1e9, "seconds"));
  app.add_option("--hw-gyro", o->hw_gyro, "as for qvn_replay")
      ->type_name("0|1")
      ->check(IntegerIn(0, 1));
  app.add_option("--hwname", o->hwname, "as for qvn_replay")->type_name("NAME");
  CLI::Option *set = app.add_option("--set", "as for qvn_replay; the base of every set")
                         ->type_name("NAME=VALUE")
                         ->allow_extra_args(false)
                         ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  CLI::Option *set_file = app.add_option("--set-file", "as for qvn_replay")
                              ->type_name("FILE")
                              ->allow_extra_args(false)
                              ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  app.add_option("--lib", o->lib, "as for qvn_replay")->type_name("PATH");
  app.add_flag("!--keep-early-gyro", o->skip_early_gyro,
               "replay gyroscope events before the first magnetometer event (default: dropped, "
               "the host order that keeps fusion finite)");
  app.add_option("--out-set", o->out_set,
                 "the tuned set for qvn_replay --set-file (default tuned_set.txt)")
      ->type_name("FILE");
  app.add_option("--out-c", o->out_c, "the same as a C function for the host (default tuned_set.c)")
      ->type_name("FILE");
  int code = ParseCommandLine(&app, argc, argv);
  if (code >= 0) return code;
  o->hwname_set = app.count("--hwname") > 0;
  if ((o->objective = ScoredOutputByName(objective)) < 0)
    return TuneFail(kTuneExitUsage, "bad value " + Quoted(objective) + " for --objective");
  if (!preset.empty() && preset != "fusion")
    return TuneFail(kTuneExitUsage, "bad value " + Quoted(preset) + " for --preset (fusion)");
  if (!preset.empty()) {
    for (const std::string &r : FusionPreset()) o->ranges.push_back(r);
  }
  for (const auto &[which, value] : InOrder(app, {set, set_file})) {
    std::string error;
    Assignment s;
    if (which == 0 && !ParseAssignment(value, &s, &error)) return TuneFail(kTuneExitUsage, "--set: " + error);
    if (which == 0) o->sets.push_back(s);
    if (which == 1 && !ReadSetFile(value, &o->sets, &error)) {
      return TuneFail(error.find(": cannot open") != std::string::npos ? kTuneExitRuntime
                                                                       : kTuneExitUsage,
                      "--set-file: " + error);
    }
  }
  for (const std::string *path : {&o->out_set, &o->out_c}) {
    std::string target, error;
    if (!CheckOutputPath(*path, &target, &error)) return TuneFail(kTuneExitRuntime, error);
  }
  if (o->train.empty()) return TuneFail(kTuneExitUsage, "no --train recording (see --help)");
  if (o->ranges.empty())
    return TuneFail(kTuneExitUsage, "nothing to tune: --preset fusion or --range");
  return -1;
}

int PrepareTune(const TuneOptions &o, TuneContext *ctx, std::string *error) {
  for (const std::string &r : o.ranges) {
    Dimension d;
    if (!ParseDimension(r, &d, error)) return kTuneExitUsage;
    ctx->dims.push_back(d);
  }
  for (const auto &[names, parts] :
       {std::make_pair(&o.train, &ctx->train), std::make_pair(&o.test, &ctx->test)}) {
    for (const std::string &s : *names) {
      parts->emplace_back();
      if (!LoadPart(s, o.warmup_s, &parts->back(), error)) {
        return error->find(": cannot open") != std::string::npos ? kTuneExitRuntime
                                                                 : kTuneExitUsage;
      }
    }
  }
  RouteLibraryLog(ANDROID_LOG_SILENT);
  if (!ctx->lib.Load(o.lib.empty() ? DefaultLibraryPath() : o.lib, error)) return kTuneExitRuntime;
  if (!ctx->folder.Create(0, error)) return kTuneExitRuntime;
  if (!ctx->lib.SetSysfsRoot(ctx->folder.root().c_str())) {
    *error = "the library's host platform has no qvn_host_set_sysfs_root";
    return kTuneExitRuntime;
  }
  if (o.hwname_set && !ctx->lib.SetProperty("ro.boot.hwname", o.hwname.c_str())) {
    *error = "cannot set ro.boot.hwname";
    return kTuneExitRuntime;
  }
  ctx->setup = {&ctx->lib, &ctx->folder, o.hw_gyro, o.skip_early_gyro, o.sets};
  ctx->replay_args = " --hw-gyro " + std::to_string(o.hw_gyro);
  if (o.skip_early_gyro) ctx->replay_args += " --skip-early-gyro";
  if (o.hwname_set) ctx->replay_args += " --hwname " + o.hwname;
  for (const Assignment &s : o.sets) ctx->replay_args += " --set " + FormatAssignment(s);
  return -1;
}

std::vector<std::string> TuneSummaryLines(const TuneOptions &o, const TuneContext &ctx, size_t done,
                                          double base_heading, double best_heading,
                                          double max_tilt, const SetScores &d, const SetScores &t) {
  char buf[512];
  std::vector<std::string> l = {o.command};
  std::snprintf(buf, sizeof buf,
                "objective: heading RMS of %s, mean over %zu training part(s), with tilt RMS <= "
                "%.2f deg and, for every output, at least 95%% of the default set's scored steps",
                ScoredOutputName(o.objective), ctx.train.size(), max_tilt);
  l.push_back(buf);
  // No wall-clock time here: the set file of a seeded search is the same
  // whatever the machine's load (the progress bar shows the time).
  std::snprintf(buf, sizeof buf,
                "search: seed %llu, %zu of %zu evaluations%s; "
                "training heading RMS %.2f -> %.2f deg",
                static_cast<unsigned long long>(o.seed), done, o.budget,
                done < o.budget ? " (stopped by the time limit)" : "", base_heading, best_heading);
  l.push_back(buf);
  l.push_back("train, default set: " + Mean(d.train, o.objective));
  l.push_back("train, tuned set:   " + Mean(t.train, o.objective));
  if (!ctx.test.empty()) {
    l.push_back("test, default set:  " + Mean(d.test, o.objective));
    l.push_back("test, tuned set:    " + Mean(t.test, o.objective));
  }
  return l;
}

std::vector<std::string> CSnippetNote(const std::vector<std::string> &summary) {
  std::vector<std::string> l = summary;
  l.push_back("");
  l.push_back("Call qvn_apply_tuned_set(handle), handle = the dlopen handle of libqvnlib, right");
  l.push_back("after every QVN_CaliInitLib: the device profile rewrites several tunables during");
  l.push_back("initialisation. qvn_replay and qvn_tune also write the set just before it, which");
  l.push_back("matters only for values that initialisation copies into working variables.");
  return l;
}

}  // namespace qvn_tools
