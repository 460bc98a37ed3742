// qvn_replay: replays a recorded sensor event file through libqvnlib exactly
// as the sensor service drives it, and reports what came out.
#include <android/log.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "core/event_csv.h"
#include "core/ground_truth.h"
#include "core/tunables.h"
#include "replay/accuracy.h"
#include "replay/library.h"
#include "replay/options.h"
#include "replay/replay_loop.h"
#include "replay/summary.h"
#include "replay/sysfs_folder.h"

namespace {

using namespace qvn_tools;

constexpr size_t kProgressMinEvents = 20000;
constexpr double kNsPerS = 1e9;

std::string Beside(const std::string &events, const char *name) {
  size_t slash = events.rfind('/');
  std::string path =
      (slash == std::string::npos ? std::string() : events.substr(0, slash + 1)) + name;
  return access(path.c_str(), R_OK) == 0 ? path : std::string();
}

void ApplySets(const Library &lib, const std::vector<Assignment> &sets) {
  for (const Assignment &s : sets) Apply(s, lib.Symbol(s.info->name));
}

void ListTunables(const Library &lib) {
  for (const TunableInfo &t : AllTunables()) {
    const void *p = lib.Symbol(t.name);
    std::printf("%-40s %-8s", t.name, TypeName(t.type));
    if (t.rows > 1 && !t.is_vec3)
      std::printf("[%zu][%zu]", t.rows, t.cols);
    else if (t.count() > 1)
      std::printf("[%zu]", t.count());
    if (p != nullptr && t.count() <= 9) {
      for (size_t i = 0; i < t.count(); ++i) std::printf(" %s", FormatElement(t, p, i).c_str());
    }
    std::printf("\n");
  }
}

}  // namespace

int main(int argc, char **argv) {
  ReplayOptions o;
  int code = ParseReplayOptions(argc, argv, &o);
  if (code >= 0) return code;
  std::string error;

  std::vector<Event> events;
  if (!o.events.empty() && !ReadEventCsv(o.events, &events, &error))
    return ReplayFail(kExitUsage, error);
  int64_t file_t0 = events.empty() ? 0 : events.front().t_ns;
  CutEvents(&events, o.from_s, o.to_s);
  if (!o.sysfs_root.empty()) {
    for (const Event &e : events) {
      if (e.sensor == Sensor::kCur) {
        return ReplayFail(kExitUsage, o.events + ":" + std::to_string(e.line) +
                                          ": cur events write the private power-supply folder; "
                                          "they cannot go with --sysfs-root");
      }
    }
  }
  OrientationTruth gt;
  CalibrationTruth truth;
  if (o.gt.empty() && !o.no_truth && !o.events.empty()) o.gt = Beside(o.events, "gt.csv");
  if (o.truth.empty() && !o.no_truth && !o.events.empty()) o.truth = Beside(o.events, "truth.txt");
  if (!o.gt.empty() && !gt.Load(o.gt, &error)) return ReplayFail(kExitUsage, error);
  if (!o.truth.empty() && !truth.Load(o.truth, &error)) return ReplayFail(kExitUsage, error);
  // Refused before anything is replayed or written.
  if (!o.errors_out.empty() && gt.empty())
    return ReplayFail(kExitUsage, "--errors-out needs a ground truth (--gt)");
  if (o.gt_shift_ms != 0 && !gt.empty()) gt.Shift(static_cast<int64_t>(o.gt_shift_ms * 1e6));
  if (o.gt_max_sigma >= 0 && !gt.empty()) {
    if (!gt.has_sigma()) return ReplayFail(kExitUsage, "--gt-max-sigma: " + o.gt + " has no sigma_deg column");
    std::fprintf(stderr, "truth: %zu of %zu samples above sigma %g deg; steps next to them not scored\n",
                 gt.SetMaxSigma(o.gt_max_sigma), gt.size(), o.gt_max_sigma);
  }

  // Logging is routed before the library can write its first line.
  RouteLibraryLog(o.log_priority);
  Library lib;
  if (!lib.Load(o.lib.empty() ? DefaultLibraryPath() : o.lib, &error))
    return ReplayFail(kExitRuntime, error);

  SysfsFolder folder;
  if (o.sysfs_root.empty() && !folder.Create(o.current, &error))
    return ReplayFail(kExitRuntime, error);
  const std::string &root = o.sysfs_root.empty() ? folder.root() : o.sysfs_root;
  if (!lib.SetSysfsRoot(root.c_str())) {
    return ReplayFail(kExitRuntime, "the library's host platform has no qvn_host_set_sysfs_root");
  }
  if (o.hwname_set && !lib.SetProperty("ro.boot.hwname", o.hwname.c_str())) {
    return ReplayFail(kExitRuntime, "cannot set ro.boot.hwname (is libqvnhost loaded?)");
  }
  for (const Assignment &s : o.sets) {
    if (lib.Symbol(s.info->name) == nullptr) {
      return ReplayFail(kExitRuntime,
                        "the library does not export '" + std::string(s.info->name) + "'");
    }
  }

  const QvnLibApiTable &api = lib.api();
  ChipInfo chip;
  std::memset(&chip, 0, sizeof chip);
  chip.hwGyro = static_cast<int8_t>(o.hw_gyro);
  // Sets are written before initialisation (values that it copies) and after
  // it (values that the device profile rewrites).
  auto initialise = [&]() {
    ApplySets(lib, o.sets);
    api.QVN_CaliInitLib(&chip);
    ApplySets(lib, o.sets);
  };
  initialise();
  api.QVN_FusionEnableLib(1);
  if (o.list) {
    ListTunables(lib);
    return 0;
  }

  WarnAboutInput(o.events, events, o.hw_gyro, o.skip_early_gyro, stderr);
  SummaryInput sum;
  api.QVN_CaliApiGetOffset(sum.initial_offset);
  ReplayConfig config;
  config.skip_early_gyro = o.skip_early_gyro;
  config.reinit_on_nan = o.reinit_on_nan;
  config.reinitialise = initialise;
  config.progress = isatty(STDERR_FILENO) && events.size() >= kProgressMinEvents &&
                    o.log_priority == ANDROID_LOG_SILENT;
  config.on_current = [&folder](int64_t current, std::string *why) {
    return folder.SetCurrent(current, why);
  };
  std::vector<StepRow> rows;
  if (!RunReplay(lib, events, config, &rows, &sum.counts, &error))
    return ReplayFail(kExitRuntime, error);
  if (!o.out.empty() && !WriteStepCsv(o.out, rows, &error)) return ReplayFail(kExitRuntime, error);

  AccuracyReport accuracy;
  bool scored = !gt.empty() && !rows.empty();
  int64_t t0 = events.empty() ? 0 : events.front().t_ns;
  if (scored) {
    AccuracyOptions ao;
    ao.hw_gyro = o.hw_gyro;
    ScoringWindow(file_t0, t0, o.warmup_s, o.score_from_s, o.score_to_s, &ao.from_ns, &ao.to_ns);
    ao.with_lag = o.lag && o.summary;
    ao.with_series = !o.errors_out.empty();
    accuracy = ScoreRun(rows, gt, ao);
    if (!o.errors_out.empty() && !WriteErrorCsv(o.errors_out, rows, accuracy, t0, &error))
      return ReplayFail(kExitRuntime, error);
  }

  if (o.summary) {
    sum.events_path = o.events;
    sum.events = &events;
    sum.rows = &rows;
    sum.lib = &lib;
    sum.hw_gyro = o.hw_gyro;
    sum.hwname = o.hwname;
    sum.accuracy = scored ? &accuracy : nullptr;
    sum.gt_path = o.gt;
    sum.truth = o.truth.empty() ? nullptr : &truth;
    sum.truth_path = o.truth;
    PrintSummary(sum, stdout);
  }
  return 0;
}
