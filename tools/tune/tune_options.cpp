// qvn_tune's options, preparation and summary lines.
#include "tune/tune_options.h"

#include <android/log.h>

#include <cstdio>

#include "core/event_csv.h"
#include "core/set_file.h"

namespace qvn_tools {
namespace {

const char kHelp[] =
    "usage: qvn_tune --train REC [--train REC...] [--test REC...] (--preset fusion | --range "
    "R...)\n"
    "\n"
    "Searches tunable values that lower the heading RMS error of one output on the\n"
    "training recordings while its tilt RMS error stays within a limit, then scores the\n"
    "default and the tuned set on the test recordings, which the search never saw.\n"
    "Each evaluation replays a recording in a child process from the library's load-\n"
    "time state, exactly as qvn_replay does (sets written before and after init).\n"
    "\n"
    "  REC                 EVENTS.csv[,from=S][,to=S][,gt=FILE][,gt-shift-ms=MS][,warmup=S]\n"
    "                      a recording or a span of it (seconds from its first event,\n"
    "                      replayed from a fresh library); gt.csv beside it by default\n"
    "  --range R           NAME=LO:HI, NAME=LO:HI:log, NAME=LO:HI:int or NAME=V1|V2|...\n"
    "  --preset fusion     the fusion ranges: weight ramp deltas, normal correction\n"
    "                      weights, compensation mode, moving average, rotation vector\n"
    "                      source, soft gyroscope smoothing ratios\n"
    "  --objective OUT     orientation (default), rv, game_rv, geomag or qfusion\n"
    "  --max-tilt-rms DEG  tilt limit (default: the default set's tilt RMS + slack)\n"
    "  --tilt-slack DEG    (default 1)\n"
    "  --seed N            search seed (default 1)\n"
    "  --budget N          evaluations after the default set (default 150)\n"
    "  --time-limit S      stop the search after S seconds (default 600)\n"
    "  --hw-gyro 0|1, --hwname NAME, --set NAME=VALUE, --set-file FILE, --lib PATH\n"
    "                      as for qvn_replay; --set values form the base of every set\n"
    "  --keep-early-gyro   replay gyroscope events before the first magnetometer event\n"
    "                      (default: dropped, the host order that keeps fusion finite)\n"
    "  --warmup S          not scored after a part's first event (default 10)\n"
    "  --out-set FILE      the tuned set for qvn_replay --set-file (default tuned_set.txt)\n"
    "  --out-c FILE        the same as a C function for the host (default tuned_set.c)\n";

bool Unsigned(const std::string &v, uint64_t *out) {
  int64_t n = 0;
  if (!ParseInt64(v, &n) || n < 0) return false;
  *out = static_cast<uint64_t>(n);
  return true;
}

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
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i], v, error;
    if (a == "--help" || a == "-h") return std::fputs(kHelp, stdout), 0;
    if (a == "--keep-early-gyro") {
      o->skip_early_gyro = false;
      continue;
    }
    if (a.rfind("--", 0) != 0)
      return TuneFail(kTuneExitUsage, "unexpected '" + a + "' (see --help)");
    if (i + 1 >= argc) return TuneFail(kTuneExitUsage, a + " needs a value");
    v = argv[++i];
    uint64_t n = 0;
    bool ok = true;
    if (a == "--train")
      o->train.push_back(v);
    else if (a == "--test")
      o->test.push_back(v);
    else if (a == "--range")
      o->ranges.push_back(v);
    else if (a == "--preset") {
      ok = v == "fusion";
      for (const std::string &r : FusionPreset()) o->ranges.push_back(r);
    } else if (a == "--objective")
      ok = (o->objective = ScoredOutputByName(v)) >= 0;
    else if (a == "--max-tilt-rms")
      ok = ParseDouble(v, &o->max_tilt) && o->max_tilt >= 0;
    else if (a == "--tilt-slack")
      ok = ParseDouble(v, &o->tilt_slack) && o->tilt_slack >= 0;
    else if (a == "--seed")
      ok = Unsigned(v, &o->seed);
    else if (a == "--budget")
      ok = Unsigned(v, &n), o->budget = n;
    else if (a == "--time-limit")
      ok = ParseDouble(v, &o->time_limit_s) && o->time_limit_s > 0;
    else if (a == "--warmup")
      ok = ParseDouble(v, &o->warmup_s) && o->warmup_s >= 0;
    else if (a == "--hw-gyro")
      ok = (v == "0" || v == "1") && ((o->hw_gyro = v[0] - '0'), true);
    else if (a == "--hwname")
      o->hwname = v, o->hwname_set = true;
    else if (a == "--lib")
      o->lib = v;
    else if (a == "--out-set")
      o->out_set = v;
    else if (a == "--out-c")
      o->out_c = v;
    else if (a == "--set" || a == "--set-file") {
      Assignment s;
      ok = a == "--set" ? ParseAssignment(v, &s, &error) : ReadSetFile(v, &o->sets, &error);
      if (!ok) return TuneFail(kTuneExitUsage, a + ": " + error);
      if (a == "--set") o->sets.push_back(s);
    } else {
      return TuneFail(kTuneExitUsage, "unknown option " + a + " (see --help)");
    }
    if (!ok) return TuneFail(kTuneExitUsage, "bad value '" + v + "' for " + a);
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
      if (!LoadPart(s, o.warmup_s, &parts->back(), error)) return kTuneExitUsage;
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
