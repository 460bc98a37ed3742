// qvn_replay: replays a recorded sensor event file through libqvnlib exactly
// as the sensor service drives it, and reports what came out.
#include <android/log.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "core/checked.h"
#include "core/event_csv.h"
#include "core/output_file.h"
#include "core/ground_truth.h"
#include "core/tunables.h"
#include "replay/accuracy.h"
#include "replay/layer_replay.h"
#include "replay/cali_report.h"
#include "replay/library.h"
#include "replay/options.h"
#include "replay/replay_loop.h"
#include "replay/summary.h"
#include "replay/sysfs_folder.h"

namespace {

using namespace qvn_tools;

constexpr size_t kMaxOrderWarnings = 5;

std::string Beside(const std::string &events, const char *name) {
  size_t slash = events.rfind('/');
  std::string path =
      (slash == std::string::npos ? std::string() : events.substr(0, slash + 1)) + name;
  return access(path.c_str(), R_OK) == 0 ? path : std::string();
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

// Progress on stderr for long runs: a bar on a terminal, else a line every
// ten seconds (so that a log shows the run is alive).
class Progress {
 public:
  Progress(bool enabled, const std::string &name)
      : enabled_(enabled), tty_(isatty(STDERR_FILENO) != 0), name_(name), start_(Now()) {}
  ~Progress() {
    if (enabled_ && tty_ && shown_ >= 0) std::fprintf(stderr, "\r%*s\r", 70, "");
  }
  void Update(double fraction) {
    if (!enabled_) return;
    int percent = static_cast<int>(std::min(1.0, std::max(0.0, fraction)) * 100);
    double now = Now();
    if (tty_) {
      if (percent == shown_ || now - start_ < 1.0) return;
      shown_ = percent;
      constexpr int kWidth = 40;
      int filled = percent * kWidth / 100;
      std::fprintf(stderr, "\rreplaying [%.*s%*s] %3d%% %.0f s", filled,
                   "########################################", kWidth - filled, "", percent,
                   now - start_);
    } else {
      if (now - last_line_ < 10.0 || now - start_ < 10.0) return;
      last_line_ = now;
      std::fprintf(stderr, "qvn_replay: %d%% of %s replayed after %.0f s\n", percent,
                   name_.c_str(), now - start_);
    }
    std::fflush(stderr);
  }

 private:
  static double Now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
  }
  bool enabled_, tty_;
  std::string name_;
  double start_, last_line_ = 0;
  int shown_ = -1;
};

// Where the events come from: the file as it is read, or all of it sorted.
class EventSource {
 public:
  int Open(const ReplayOptions &o, std::string *error) {
    EventCsvOptions eo;
    eo.allow_nonfinite = o.allow_nonfinite;
    eo.allow_unsorted = o.sort || o.keep_order;
    if (!o.sort) {
      if (!reader_.Open(o.events, eo, error)) return kExitRuntime;
      return -1;
    }
    sorted_ = true;
    LineReader probe;  // a missing file is a file problem, not bad input
    if (!probe.Open(o.events, error)) return kExitRuntime;
    if (!ReadEventCsv(o.events, eo, &events_, error)) return kExitUsage;
    std::stable_sort(events_.begin(), events_.end(),
                     [](const Event &a, const Event &b) { return a.t_ns < b.t_ns; });
    return -1;
  }
  bool Next(Event *e) {
    if (!sorted_) return reader_.Next(e);
    if (next_ >= events_.size()) return false;
    *e = events_[next_++];
    return true;
  }
  double Fraction() const {
    if (sorted_) return events_.empty() ? 1.0 : double(next_) / double(events_.size());
    const LineReader &in = reader_.input();
    return in.size() == 0 ? 0.0 : double(in.bytes_read()) / double(in.size());
  }
  const std::string &error() const { return reader_.error(); }

 private:
  EventReader reader_;
  bool sorted_ = false;
  std::vector<Event> events_;
  size_t next_ = 0;
};

// A file that cannot be opened is a runtime problem; a bad line is bad input.
int LoadCode(const std::string &error) {
  return error.find(": cannot open") != std::string::npos ||
                 error.find(": is a directory") != std::string::npos
             ? kExitRuntime
             : kExitUsage;
}

std::string Span(int64_t a, int64_t b) {
  char buf[96];
  std::snprintf(buf, sizeof buf, "%" PRId64 " .. %" PRId64 " ns", a, b);
  return buf;
}

// The magnetometer events of a file, read one event at a time (the offset
// reference needs them all; the other sensors are not kept).
bool ReadMagEvents(const std::string &path, const ReplayOptions &o, std::vector<Event> *mag,
                   std::string *error) {
  EventCsvOptions eo;
  eo.allow_nonfinite = o.allow_nonfinite;
  eo.allow_unsorted = true;
  EventReader reader;
  if (!reader.Open(path, eo, error)) return false;
  Event e;
  while (reader.Next(&e)) {
    if (e.sensor == Sensor::kMag) mag->push_back(e);
  }
  *error = reader.error();
  return error->empty();
}

}  // namespace

int main(int argc, char **argv) {
  ReplayOptions o;
  int code = ParseReplayOptions(argc, argv, &o);
  if (code >= 0) return code;
  std::string error;

  EventSource source;
  if (!o.events.empty() && (code = source.Open(o, &error)) >= 0) return ReplayFail(code, error);
  OrientationTruth gt;
  CalibrationTruth truth;
  if (o.gt.empty() && !o.no_truth && !o.events.empty()) o.gt = Beside(o.events, "gt.csv");
  if (o.truth.empty() && !o.no_truth && !o.events.empty()) o.truth = Beside(o.events, "truth.txt");
  if (!o.gt.empty() && !gt.Load(o.gt, &error)) return ReplayFail(LoadCode(error), error);
  if (!o.truth.empty() && !truth.Load(o.truth, &error)) return ReplayFail(LoadCode(error), error);
  if (!o.gt.empty() && gt.empty()) return ReplayFail(kExitUsage, o.gt + ": no truth samples");
  // Refused before anything is replayed or written.
  if (!o.errors_out.empty() && gt.empty())
    return ReplayFail(kExitUsage, "--errors-out needs a ground truth (--gt)");
  std::string target;
  if (!o.errors_out.empty() && !CheckOutputPath(o.errors_out, &target, &error))
    return ReplayFail(kExitRuntime, "--errors-out: " + error);
  OutputFile out;
  if (!o.out.empty() && !out.Open(o.out, &error)) return ReplayFail(kExitRuntime, "--out: " + error);
  if (o.gt_shift_ms != 0 && !gt.empty()) gt.Shift(SaturatingInt64(o.gt_shift_ms * 1e6));
  if (o.gt_max_sigma >= 0 && !gt.empty()) {
    if (!gt.has_sigma())
      return ReplayFail(kExitUsage, "--gt-max-sigma: " + o.gt + " has no sigma_deg column");
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
  const std::function<void()> initialise = Initialiser(lib, o.hw_gyro, o.sets);
  if (!o.host_layer) {
    initialise();
    api.QVN_FusionEnableLib(1);
  } else if (!OpenHostLayer(lib, o.hw_gyro, o.sets, &error)) {
    return ReplayFail(kExitRuntime, error);
  }
  if (o.list) {
    ListTunables(lib);
    return 0;
  }

  // Calibration attempts, decoded from the library's exported state around
  // every step, and the offset reference fitted beforehand.
  std::vector<Event> reference_mag;
  const std::string &reference_file = o.reference_events.empty() ? o.events : o.reference_events;
  if (!ReadMagEvents(reference_file, o, &reference_mag, &error)) {
    const char *what = o.reference_events.empty() ? "" : "--reference-events: ";
    return ReplayFail(LoadCode(error), what + error);
  }
  CaliTracking cali;
  ReplayConfig config;
  std::string warning;
  cali.Attach(lib, reference_mag, o.reference_events.empty() ? nullptr : &reference_mag,
              o.reference_events, &config, &warning);
  if (!warning.empty()) std::fprintf(stderr, "qvn_replay: warning: %s\n", warning.c_str());
  std::vector<Event>().swap(reference_mag);

  SummaryInput sum;
  float initial_offset[3] = {0, 0, 0};
  api.QVN_CaliApiGetOffset(initial_offset);
  const float *limit = static_cast<const float *>(lib.Symbol("k7q_interference_threshold"));
  StepDigest digest(initial_offset, limit != nullptr ? *limit : NAN);
  config.skip_early_gyro = o.skip_early_gyro;
  config.reinit_on_nan = o.reinit_on_nan;
  config.reinitialise = initialise;
  config.on_current = [&folder](int64_t current, std::string *why) {
    return folder.SetCurrent(current, why);
  };
  Replayer replayer(lib, config);
  LayerReplayer layered(lib, config);  // --host-layer
  Progress progress(o.log_priority == ANDROID_LOG_SILENT, o.events);
  if (out.is_open()) std::fprintf(out.file(), "%s\n", kStepCsvHeader);
  // Scoring needs every step; without ground truth nothing is kept.
  std::vector<StepRow> rows;
  const bool keep_rows = !gt.empty();
  size_t read = 0, backwards = 0;
  int64_t file_t0 = 0, prev_t = 0, last_read_t = 0;
  int prev_line = 0;
  bool seen_mag = false;
  Event e;
  StepRow row;
  while (source.Next(&e)) {
    if (read++ == 0) file_t0 = e.t_ns;
    last_read_t = e.t_ns;
    if ((read & 0xfff) == 0) progress.Update(source.Fraction());
    const double at_s = SecondsBetween(file_t0, e.t_ns);
    if ((o.from_s > 0 && at_s < o.from_s) || (o.to_s >= 0 && at_s >= o.to_s)) continue;
    if (e.sensor == Sensor::kCur && !o.sysfs_root.empty()) {
      return ReplayFail(kExitUsage, o.events + ":" + std::to_string(e.line) +
                                        ": cur events write the private power-supply folder; "
                                        "they cannot go with --sysfs-root");
    }
    if (sum.events_replayed > 0 && e.t_ns < prev_t && ++backwards <= kMaxOrderWarnings) {
      std::fprintf(stderr,
                   "%s:%d: warning: time %" PRId64 " ns is earlier than line %d (%" PRId64
                   " ns); replayed as it stands (--keep-order)\n",
                   o.events.c_str(), e.line, e.t_ns, prev_line, prev_t);
    }
    if (o.hw_gyro == 1 && !o.skip_early_gyro && !seen_mag && e.sensor == Sensor::kGyr &&
        !sum.early_gyro_warned) {
      WarnEarlyGyro(o.events, e.line, stderr);
      sum.early_gyro_warned = true;
    }
    seen_mag = seen_mag || e.sensor == Sensor::kMag;
    if (sum.events_replayed++ == 0) sum.first_ns = e.t_ns;
    sum.last_ns = e.t_ns;
    prev_t = e.t_ns;
    prev_line = e.line;
    bool stepped = false;
    if (!(o.host_layer ? layered.Feed(e, &row, &stepped, &error)
                       : replayer.Feed(e, &row, &stepped, &error)))
      return ReplayFail(kExitRuntime, error);
    if (!stepped) continue;
    if (out.is_open()) WriteStepRow(out.file(), row);
    digest.Add(row);
    if (keep_rows) rows.push_back(row);
  }
  if (!source.error().empty()) return ReplayFail(kExitUsage, source.error());
  if (backwards > kMaxOrderWarnings) {
    std::fprintf(stderr, "%s: warning: %zu events in all go back in time\n", o.events.c_str(),
                 backwards);
  }
  if (read == 0) {
    return ReplayFail(kExitUsage,
                      o.events + ": no events (the file is empty or holds only a header and "
                                 "comments)");
  }
  if (sum.events_replayed == 0) {
    char to[48] = "the end";
    if (o.to_s >= 0) std::snprintf(to, sizeof to, "--to %g s", o.to_s);
    char buf[160];
    std::snprintf(buf, sizeof buf, "no events between --from %g s and %s: the recording spans %.3f s",
                  o.from_s, to, SecondsBetween(file_t0, last_read_t));
    return ReplayFail(kExitUsage, buf);
  }

  AccuracyReport accuracy;
  bool scored = !gt.empty() && !rows.empty();
  const int64_t t0 = sum.first_ns;
  AccuracyOptions ao;
  if (scored) {
    // A truth and a scored span that miss the replay would score nothing.
    if (gt.last_ns() < sum.first_ns || gt.first_ns() > sum.last_ns) {
      return ReplayFail(kExitUsage, "the ground truth " + o.gt + " covers " +
                                        Span(gt.first_ns(), gt.last_ns()) +
                                        " but the replayed events " +
                                        Span(sum.first_ns, sum.last_ns) +
                                        ": they do not overlap (--gt-shift-ms moves the truth)");
    }
    ao.hw_gyro = o.hw_gyro;
    ScoringWindow(file_t0, t0, o.warmup_s, o.score_from_s, o.score_to_s, &ao.from_ns, &ao.to_ns);
    if ((ao.from_ns > sum.last_ns || ao.to_ns <= sum.first_ns) && !o.window_set) {
      // Only the default warm-up misses a short recording: not scored, said so.
      std::fprintf(stderr,
                   "qvn_replay: note: the recording is shorter than the %g s warm-up: not "
                   "scored (--warmup or --score-from set the scored span)\n",
                   o.warmup_s);
      scored = false;
      if (!o.errors_out.empty())
        return ReplayFail(kExitUsage, "--errors-out: nothing to score (see the note above)");
    } else if (ao.from_ns > sum.last_ns || ao.to_ns <= sum.first_ns) {
      return ReplayFail(kExitUsage, "the scored span " + Span(ao.from_ns, ao.to_ns) +
                                        " lies outside the replayed events " +
                                        Span(sum.first_ns, sum.last_ns) +
                                        " (see --warmup, --score-from, --score-to)");
    }
  }
  if (out.is_open() && !out.Commit(&error)) return ReplayFail(kExitRuntime, error);
  if (scored) {
    ao.with_lag = o.lag && o.summary;
    ao.with_series = !o.errors_out.empty();
    accuracy = ScoreRun(rows, gt, ao);
    if (!o.errors_out.empty() && !WriteErrorCsv(o.errors_out, rows, accuracy, t0, &error))
      return ReplayFail(kExitRuntime, error);
  }

  double true_offset[3];
  bool has_true_offset = !o.truth.empty() && truth.HasOffset();
  for (int k = 0; k < 3 && has_true_offset; ++k) true_offset[k] = (*truth.Get("offset_uT"))[k];
  const CaliReportInput *report = cali.Finish(t0, has_true_offset ? true_offset : nullptr);
  if (report != nullptr && !o.attempts_out.empty() &&
      !WriteAttemptsCsv(o.attempts_out, *report, &error))
    return ReplayFail(kExitRuntime, error);
  if (report != nullptr && !o.quality_out.empty() &&
      !WriteQualityCsv(o.quality_out, *report, &error))
    return ReplayFail(kExitRuntime, error);

  if (o.summary) {
    sum.cali = report;
    sum.events_path = o.events;
    sum.steps = &digest;
    sum.counts = o.host_layer ? layered.counts() : replayer.counts();
    sum.lib = &lib;
    sum.hw_gyro = o.hw_gyro;
    sum.hwname = o.hwname;
    for (const Assignment &s : o.sets) sum.sets.push_back(s.text);
    sum.accuracy = scored ? &accuracy : nullptr;
    sum.gt_path = o.gt;
    sum.truth = o.truth.empty() ? nullptr : &truth;
    sum.truth_path = o.truth;
    PrintSummary(sum, stdout);
    if (o.host_layer) PrintLayerCounters(stdout);
  }
  return 0;
}
