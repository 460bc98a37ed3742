// The replay of qvn_replay's main, step for step, with its output in memory.
#include "replay_run.h"

#include <android/log.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "qvn_host_layer.h"
#include "replay/cali_report.h"
#include "replay/layer_replay.h"
#include "replay/summary.h"
#include "replay/sysfs_folder.h"

namespace qvn_python {
namespace {

using namespace qvn_tools;

// Text that the tools print on a FILE *, kept in memory instead.
class TextSink {
 public:
  TextSink() : file_(open_memstream(&buffer_, &size_)) {}
  ~TextSink() {
    if (file_ != nullptr) std::fclose(file_);
    std::free(buffer_);
  }
  TextSink(const TextSink &) = delete;
  TextSink &operator=(const TextSink &) = delete;
  // nullptr only when memory ran out; the tools' printers accept no null
  // stream, so callers fall back to /dev/null's equivalent: nothing printed.
  FILE *file() const { return file_; }
  std::string Take() {
    if (file_ != nullptr) std::fclose(file_);
    file_ = nullptr;
    return buffer_ != nullptr ? std::string(buffer_, size_) : std::string();
  }

 private:
  char *buffer_ = nullptr;
  size_t size_ = 0;
  FILE *file_;
};

std::vector<std::string> Lines(const std::string &text) {
  std::vector<std::string> lines;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

// The library's log while a replay captures it. Replays are serialised by
// the caller, and the log is routed back to silence after each one.
std::vector<std::string> *g_captured = nullptr;

void CaptureLogger(const struct __android_logger_data *data, const char *message) {
  if (g_captured == nullptr) return;
  static const char kLetters[] = "??VDIWEFS";
  int p = data != nullptr ? data->priority : 0;
  size_t n = std::strlen(message);
  while (n > 0 && (message[n - 1] == '\n' || message[n - 1] == '\r')) --n;
  std::string line(1, (p >= 0 && p < 9) ? kLetters[p] : '?');
  line += ' ';
  line.append(message, n);
  g_captured->push_back(std::move(line));
}

class LogRoute {
 public:
  LogRoute(LogMode mode, int priority, std::vector<std::string> *lines) {
    if (mode == LogMode::kCapture) {
      g_captured = lines;
      __android_log_set_logger(CaptureLogger);
      __android_log_set_minimum_priority(priority);
    } else {
      RouteLibraryLog(mode == LogMode::kStderr ? priority : ANDROID_LOG_SILENT);
    }
  }
  ~LogRoute() {
    RouteLibraryLog(ANDROID_LOG_SILENT);
    g_captured = nullptr;
  }
};

// The host layer, open for one replay: closing it puts the core back into
// the state it found at opening, which is the load-time state.
class OpenLayer {
 public:
  ~OpenLayer() {
    if (open_) qvn_layer_close();
  }
  bool Open(const Library &lib, int hw_gyro, const std::vector<Assignment> &sets,
            std::string *error) {
    open_ = OpenHostLayer(lib, hw_gyro, sets, error);
    return open_;
  }

 private:
  bool open_ = false;
};

}  // namespace

bool Session::Load(const std::string &path, std::string *error) {
  RouteLibraryLog(ANDROID_LOG_SILENT);
  if (!lib_.Load(path, error)) return false;
  state_ = LoadTimeStateOf(&lib_.api(), error);
  if (state_ == nullptr) return false;
  property_clear_ = reinterpret_cast<void (*)()>(lib_.Symbol("qvn_host_property_clear"));
  property_unreadable_ =
      reinterpret_cast<void (*)(int)>(lib_.Symbol("qvn_host_property_set_unreadable"));
  if (property_clear_ == nullptr || property_unreadable_ == nullptr ||
      !lib_.SetSysfsRoot(nullptr)) {
    *error = path + ": its host platform (libqvnhost) offers no way to reset its properties";
    return false;
  }
  return true;
}

void Session::StartFromLoadTime(const char *sysfs_root) const {
  state_->Restore();
  // The host stand-in's state is set through its own entries: the property
  // store empties as in a new process, and the power-supply files come from
  // the replay's private folder.
  property_clear_();
  property_unreadable_(0);
  lib_.SetSysfsRoot(sysfs_root);
}

bool Session::Replay(const ReplayRequest &rq, ReplayOutcome *out, std::string *error) const {
  std::vector<Event> events = *rq.events;  // cut to the span below
  out->file_t0_ns = events.empty() ? 0 : events.front().t_ns;
  CutEvents(&events, rq.from_s, rq.to_s);
  out->t0_ns = events.empty() ? 0 : events.front().t_ns;
  for (const Assignment &s : rq.sets) {
    if (lib_.Symbol(s.info->name) == nullptr) {
      *error = "the library does not export '" + std::string(s.info->name) + "'";
      return false;
    }
  }
  SysfsFolder folder;
  if (!folder.Create(rq.current, error)) return false;
  LogRoute route(rq.log_mode, rq.log_priority, &out->log);
  StartFromLoadTime(folder.root().c_str());
  if (rq.hwname_set && !lib_.SetProperty("ro.boot.hwname", rq.hwname.c_str())) {
    *error = "cannot set ro.boot.hwname to '" + rq.hwname + "' (too long?)";
    return false;
  }

  const QvnLibApiTable &api = lib_.api();
  const std::function<void()> initialise = Initialiser(lib_, rq.hw_gyro, rq.sets);
  OpenLayer layer;
  if (!rq.host_layer) {
    initialise();
    api.QVN_FusionEnableLib(1);
  } else if (!layer.Open(lib_, rq.hw_gyro, rq.sets, error)) {
    return false;
  }

  {
    TextSink warnings;
    if (warnings.file() != nullptr) {
      WarnAboutInput(rq.events_label, events, rq.hw_gyro, rq.skip_early_gyro, warnings.file());
    }
    out->warnings = Lines(warnings.Take());
  }
  // Calibration attempts and the offset reference, as qvn_replay reports them.
  CaliTracking cali;
  ReplayConfig config;
  std::string cali_warning;
  // The reference comes from the whole recording, as qvn_replay fits it.
  cali.Attach(lib_, *rq.events, rq.reference_events, rq.reference_label, &config, &cali_warning);
  if (!cali_warning.empty()) out->warnings.push_back("qvn_replay: warning: " + cali_warning);
  SummaryInput sum;
  api.QVN_CaliApiGetOffset(sum.initial_offset);
  std::memcpy(out->initial_offset, sum.initial_offset, sizeof out->initial_offset);
  config.skip_early_gyro = rq.skip_early_gyro;
  config.reinit_on_nan = rq.reinit_on_nan;
  config.reinitialise = initialise;
  config.on_current = [&folder](int64_t current, std::string *why) {
    return folder.SetCurrent(current, why);
  };
  out->rows.reserve(events.size() / 2);
  if (!rq.host_layer) {
    if (!RunReplay(lib_, events, config, &out->rows, &sum.counts, error)) return false;
  } else {
    LayerReplayer layered(lib_, config);
    StepRow row;
    bool stepped = false;
    for (const Event &e : events) {
      if (!layered.Feed(e, &row, &stepped, error)) return false;
      if (stepped) out->rows.push_back(row);
    }
    sum.counts = layered.counts();
  }
  out->counts = sum.counts;
  double true_offset[3];
  bool has_true_offset = rq.calibration != nullptr && rq.calibration->HasOffset();
  for (int k = 0; k < 3 && has_true_offset; ++k)
    true_offset[k] = (*rq.calibration->Get("offset_uT"))[k];
  const CaliReportInput *report = cali.Finish(out->t0_ns, has_true_offset ? true_offset : nullptr);
  if (report != nullptr) {
    out->attempts = report->decoder->attempts();
    out->collection = report->decoder->stats();
    out->frame = *report->frame;
  }

  out->scored = rq.truth != nullptr && !rq.truth->empty() && !out->rows.empty();
  if (out->scored) {
    OrientationTruth gt = *rq.truth;
    if (rq.gt_shift_ms != 0) gt.Shift(static_cast<int64_t>(rq.gt_shift_ms * 1e6));
    AccuracyOptions ao;
    ao.hw_gyro = rq.hw_gyro;
    ScoringWindow(out->file_t0_ns, out->t0_ns, rq.warmup_s, rq.score_from_s, rq.score_to_s,
                  &ao.from_ns, &ao.to_ns);
    ao.with_lag = rq.lag;
    ao.with_series = true;
    out->accuracy = ScoreRun(out->rows, gt, ao);
  }

  TextSink summary;
  if (summary.file() != nullptr) {
    sum.events_path = rq.events_label;
    sum.events = &events;
    sum.rows = &out->rows;
    sum.lib = &lib_;
    sum.hw_gyro = rq.hw_gyro;
    sum.hwname = rq.hwname;
    sum.accuracy = out->scored ? &out->accuracy : nullptr;
    sum.gt_path = rq.truth_label;
    sum.truth = rq.calibration;
    sum.truth_path = rq.calibration_label;
    sum.cali = report;
    PrintSummary(sum, summary.file());
    if (rq.host_layer) PrintLayerCounters(summary.file());
  }
  out->summary = summary.Take();
  return true;
}

AccuracyReport ScoreRows(const std::vector<StepRow> &rows, const OrientationTruth &truth,
                         const AccuracyOptions &options, int64_t t0_ns, std::string *table) {
  AccuracyReport report = ScoreRun(rows, truth, options);
  TextSink text;
  if (text.file() != nullptr) PrintAccuracy(report, t0_ns, text.file());
  *table = text.Take();
  return report;
}

}  // namespace qvn_python
