// qvn_reference: a reference attitude from a recording alone (optionally with
// a calibration recording of the same phone), in the ground-truth format plus
// a standard deviation per sample, and a short report.
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "core/event_csv.h"
#include "core/ground_truth.h"
#include "core/scoring.h"
#include "reference/reference_attitude.h"

namespace {

const char kUsage[] =
    "usage: qvn_reference [options] EVENTS.csv\n"
    "  --cal FILE.csv      calibration recording of the same phone (same day)\n"
    "  --out FILE.csv      reference attitude: t_ns,qw,qx,qy,qz,sigma_deg (default reference.csv)\n"
    "  --report FILE.txt   the report (default: stdout)\n"
    "  --rate HZ           output rate (default 100)\n"
    "  --no-refit-offset   keep the calibration recording's offset as it is\n"
    "  --step S            smoothing step in seconds (default 0.1)\n"
    "  --smoother NAME=V   a smoothing setting (names: --help-smoother)\n"
    "  --score-gt FILE     score the reference against this truth, as qvn_replay scores\n"
    "                      an output (one heading offset removed, lag not searched)\n"
    "  --gt-shift-ms MS    move the truth's clock (default 0)\n"
    "  --score-from S      score from S seconds after the recording's first event (default 10)\n"
    "  --score-to S        ... up to S seconds\n";

bool ToStreams(const std::string &path, qvn_reference::Streams *s, std::string *error) {
  std::vector<qvn_tools::Event> events;
  // Only each sensor's own stream has to run forwards in time (checked
  // below), so a file written sensor by sensor is read as it is.
  qvn_tools::EventCsvOptions options;
  options.allow_unsorted = true;
  if (!qvn_tools::ReadEventCsv(path, options, &events, error)) return false;
  int64_t last[3] = {INT64_MIN, INT64_MIN, INT64_MIN};
  for (const qvn_tools::Event &e : events) {
    std::vector<qvn_reference::TimedVec> *v = nullptr;
    int k = 0;
    switch (e.sensor) {
      case qvn_tools::Sensor::kAcc:
        v = &s->acc, k = 0;
        break;
      case qvn_tools::Sensor::kGyr:
        v = &s->gyr, k = 1;
        break;
      case qvn_tools::Sensor::kMag:
        v = &s->mag, k = 2;
        break;
      case qvn_tools::Sensor::kCur:
        continue;
    }
    // Each stream must run forwards in time; a repeated or earlier time is
    // dropped rather than integrated backwards.
    if (e.t_ns <= last[k]) continue;
    last[k] = e.t_ns;
    if (!std::isfinite(e.x) || !std::isfinite(e.y) || !std::isfinite(e.z)) continue;
    v->push_back({e.t_ns, Eigen::Vector3d(e.x, e.y, e.z)});
  }
  return true;
}

// The smoother's settings by name, for trying them from the command line.
double *SmootherSetting(qvn_reference::SmootherOptions *o, const std::string &name) {
  struct Entry {
    const char *name;
    double qvn_reference::SmootherOptions::*field;
  };
  static const Entry kEntries[] = {
      {"gyro_noise", &qvn_reference::SmootherOptions::gyro_noise},
      {"bias_walk", &qvn_reference::SmootherOptions::bias_walk},
      {"accel_noise", &qvn_reference::SmootherOptions::accel_noise},
      {"velocity_sigma_h", &qvn_reference::SmootherOptions::velocity_sigma_h},
      {"velocity_sigma_v", &qvn_reference::SmootherOptions::velocity_sigma_v},
      {"velocity_every_s", &qvn_reference::SmootherOptions::velocity_every_s},
      {"still_velocity_sigma", &qvn_reference::SmootherOptions::still_velocity_sigma},
      {"heading_sigma_deg", &qvn_reference::SmootherOptions::heading_sigma_deg},
      {"heading_correlation_s", &qvn_reference::SmootherOptions::heading_correlation_s},
      {"gravity_sigma", &qvn_reference::SmootherOptions::gravity_sigma},
      {"initial_bias_sigma", &qvn_reference::SmootherOptions::initial_bias_sigma},
  };
  for (const Entry &e : kEntries)
    if (name == e.name) return &(o->*e.field);
  if (name == "list") {
    for (const Entry &e : kEntries) std::printf("%s = %g\n", e.name, o->*e.field);
  }
  return nullptr;
}

bool ParseNumber(const char *text, double *out) {
  char *end = nullptr;
  errno = 0;
  double v = std::strtod(text, &end);
  if (end == text || *end != '\0' || errno != 0 || !std::isfinite(v) || v <= 0) return false;
  *out = v;
  return true;
}

}  // namespace

int main(int argc, char **argv) {
  std::string events, cal, out = "reference.csv", report, score_gt;
  double shift_ms = 0, score_from = 10, score_to = -1;
  qvn_reference::ReferenceOptions options;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    auto value = [&](const char *name) -> const char * {
      if (i + 1 >= argc) {
        std::fprintf(stderr, "qvn_reference: %s needs a value\n%s", name, kUsage);
        std::exit(2);
      }
      return argv[++i];
    };
    if (a == "--help" || a == "-h") {
      std::fputs(kUsage, stdout);
      return 0;
    } else if (a == "--cal") {
      cal = value("--cal");
    } else if (a == "--out") {
      out = value("--out");
    } else if (a == "--report") {
      report = value("--report");
    } else if (a == "--help-smoother") {
      SmootherSetting(&options.smoother, "list");
      return 0;
    } else if (a == "--smoother") {
      std::string kv = value("--smoother");
      size_t eq = kv.find('=');
      double *field =
          eq == std::string::npos ? nullptr : SmootherSetting(&options.smoother, kv.substr(0, eq));
      char *end = nullptr;
      double d = field == nullptr ? 0 : std::strtod(kv.c_str() + eq + 1, &end);
      if (field == nullptr || end == kv.c_str() + eq + 1 || *end != '\0' || !std::isfinite(d) ||
          d < 0) {
        std::fprintf(
            stderr,
            "qvn_reference: --smoother %s: expected NAME=VALUE >= 0 (names: --help-smoother)\n",
            kv.c_str());
        return 2;
      }
      *field = d;
    } else if (a == "--score-gt") {
      score_gt = value("--score-gt");
    } else if (a == "--gt-shift-ms" || a == "--score-from" || a == "--score-to") {
      const char *v = value(a.c_str());
      char *end = nullptr;
      double d = std::strtod(v, &end);
      if (end == v || *end != '\0' || !std::isfinite(d)) {
        std::fprintf(stderr, "qvn_reference: %s: '%s' is not a number\n", a.c_str(), v);
        return 2;
      }
      (a == "--gt-shift-ms" ? shift_ms : a == "--score-from" ? score_from : score_to) = d;
    } else if (a == "--no-refit-offset") {
      options.refit_offset = false;
    } else if (a == "--rate" || a == "--step") {
      const char *v = value(a.c_str());
      double d = 0;
      if (!ParseNumber(v, &d) || (a == "--rate" && d > 10000) || (a == "--step" && d > 10)) {
        std::fprintf(stderr, "qvn_reference: %s: '%s' is not a usable value\n", a.c_str(), v);
        return 2;
      }
      (a == "--rate" ? options.output_rate_hz : options.smoother.step_s) = d;
    } else if (!a.empty() && a[0] == '-') {
      std::fprintf(stderr, "qvn_reference: unknown option %s\n%s", a.c_str(), kUsage);
      return 2;
    } else if (events.empty()) {
      events = a;
    } else {
      std::fprintf(stderr, "qvn_reference: one events file only (got %s and %s)\n", events.c_str(),
                   a.c_str());
      return 2;
    }
  }
  if (events.empty()) {
    std::fputs(kUsage, stderr);
    return 2;
  }
  qvn_reference::Streams rec, cal_rec;
  std::string error;
  if (!ToStreams(events, &rec, &error) || (!cal.empty() && !ToStreams(cal, &cal_rec, &error))) {
    std::fprintf(stderr, "qvn_reference: %s\n", error.c_str());
    return 2;
  }
  qvn_reference::ReferenceResult r =
      qvn_reference::ComputeReference(rec, cal.empty() ? nullptr : &cal_rec, options);
  if (!r.ok) {
    std::fprintf(stderr, "qvn_reference: %s: %s\n", events.c_str(), r.error.c_str());
    return 2;
  }
  // Written beside and renamed: a reader never sees half a file.
  const std::string tmp = out + ".tmp";
  FILE *f = std::fopen(tmp.c_str(), "w");
  if (f == nullptr) {
    std::fprintf(stderr, "qvn_reference: %s: %s\n", tmp.c_str(), std::strerror(errno));
    return 1;
  }
  std::fputs("t_ns,qw,qx,qy,qz,sigma_deg\n", f);
  for (const auto &s : r.samples)
    std::fprintf(f, "%lld,%.9f,%.9f,%.9f,%.9f,%.3f\n", static_cast<long long>(s.t_ns), s.qw, s.qx,
                 s.qy, s.qz, s.sigma_deg);
  bool ok = std::fflush(f) == 0 && !std::ferror(f);
  ok = std::fclose(f) == 0 && ok;
  if (!ok || std::rename(tmp.c_str(), out.c_str()) != 0) {
    std::fprintf(stderr, "qvn_reference: cannot write %s\n", out.c_str());
    std::remove(tmp.c_str());
    return 1;
  }
  if (!score_gt.empty()) {
    qvn_tools::OrientationTruth truth;
    if (!truth.Load(score_gt, &error)) {
      std::fprintf(stderr, "qvn_reference: %s\n", error.c_str());
      return 2;
    }
    truth.Shift(static_cast<int64_t>(std::llround(shift_ms * 1e6)));
    std::vector<qvn_tools::Estimate> est;
    for (const auto &s : r.samples) est.push_back({s.t_ns, {s.qw, s.qx, s.qy, s.qz}, true});
    int64_t first = INT64_MAX;
    for (const auto *v : {&rec.acc, &rec.gyr, &rec.mag})
      if (!v->empty()) first = std::min(first, v->front().t_ns);
    qvn_tools::ScoreWindow w;
    w.from_ns = first + static_cast<int64_t>(std::llround(score_from * 1e9));
    if (score_to > 0) w.to_ns = first + static_cast<int64_t>(std::llround(score_to * 1e9));
    qvn_tools::ErrorStats st = qvn_tools::ScoreEstimates(est, truth, w);
    char line[512];
    std::snprintf(line, sizeof line,
                  "against %s: %zu samples, heading RMS %.2f median %.2f p95 %.2f max %.2f, "
                  "tilt RMS %.2f median %.2f p95 %.2f (offset %.2f deg)\n",
                  score_gt.c_str(), st.scored, st.heading_rms, st.heading_median, st.heading_p95,
                  st.heading_max, st.tilt_rms, st.tilt_median, st.tilt_p95, st.offset_deg);
    r.report += line;
  }
  if (report.empty()) {
    std::fputs(r.report.c_str(), stdout);
  } else {
    FILE *rf = std::fopen(report.c_str(), "w");
    if (rf == nullptr || std::fputs(r.report.c_str(), rf) < 0 || std::fclose(rf) != 0) {
      std::fprintf(stderr, "qvn_reference: cannot write %s\n", report.c_str());
      return 1;
    }
  }
  return 0;
}
