// The replay loop: events in, the library's answers out, in the order a
// sensor service makes its calls.
#include "replay/replay_loop.h"

#include "core/checked.h"
#include "core/output_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace qvn_tools {
namespace {

// Host status handed with every sample; the library only logs it.
constexpr int32_t kHostSampleStatus = 3;

void ApplySets(const Library &lib, const std::vector<Assignment> &sets) {
  for (const Assignment &s : sets) Apply(s, lib.Symbol(s.info->name));
}

// The attitude outputs of a step (the three-value outputs that are not
// attitudes do not take part).
bool AllFinite(const StepRow &r, bool with_qfusion) {
  for (int k : {kOrientation, kRotationVector, kGeoMagnetic}) {
    for (float v : r.fusion[k].values) {
      if (!std::isfinite(v)) return false;
    }
  }
  for (float v : r.qfusion) {
    if (with_qfusion && !std::isfinite(v)) return false;
  }
  return true;
}

}  // namespace

SensorEvent ToSensorEvent(const Event &e) {
  SensorEvent s;
  std::memset(&s, 0, sizeof s);
  s.timestamp = e.t_ns;
  s.x = static_cast<float>(e.x);
  s.y = static_cast<float>(e.y);
  s.z = static_cast<float>(e.z);
  s.accuracy = kHostSampleStatus;
  return s;
}

std::function<void()> Initialiser(const Library &lib, int hw_gyro,
                                  const std::vector<Assignment> &sets) {
  ChipInfo chip;
  std::memset(&chip, 0, sizeof chip);
  chip.hwGyro = static_cast<int8_t>(hw_gyro);
  return [&lib, &sets, chip]() {
    ApplySets(lib, sets);
    lib.api().QVN_CaliInitLib(&chip);
    ApplySets(lib, sets);
  };
}

void WarnEarlyGyro(const std::string &path, int line, FILE *out) {
  std::fprintf(
      out,
      "%s:%d: warning: with --hw-gyro 1 this gyroscope event runs a fusion step before "
      "the first magnetometer event, while the start-up ramp length is still 0: the fusion "
      "weights become 0/0 and the quaternion stays NaN for good. A sensor service avoids "
      "this by handing the first magnetometer sample (SetMagData + DoCaliAPI) to the "
      "library before any gyroscope sample; --skip-early-gyro replays that order, "
      "--reinit-on-nan the other remedy (see docs/accuracy.md).\n",
      path.c_str(), line);
}

void WarnAboutInput(const std::string &path, const std::vector<Event> &events, int hw_gyro,
                    bool skip_early_gyro, FILE *out) {
  constexpr size_t kMaxOrderWarnings = 5;
  size_t backwards = 0;
  for (size_t i = 1; i < events.size(); ++i) {
    if (events[i].t_ns >= events[i - 1].t_ns) continue;
    if (++backwards <= kMaxOrderWarnings) {
      std::fprintf(out,
                   "%s:%d: warning: time %" PRId64 " ns is earlier than line %d (%" PRId64
                   " ns); events are replayed in file order, not re-sorted\n",
                   path.c_str(), events[i].line, events[i].t_ns, events[i - 1].line,
                   events[i - 1].t_ns);
    }
  }
  if (backwards > kMaxOrderWarnings) {
    std::fprintf(out, "%s: warning: %zu events in all go back in time\n", path.c_str(), backwards);
  }
  if (hw_gyro != 1 || skip_early_gyro) return;
  for (const Event &e : events) {
    if (e.sensor == Sensor::kMag) break;
    if (e.sensor != Sensor::kGyr) continue;
    WarnEarlyGyro(path, e.line, out);
    break;
  }
}

void CutEvents(std::vector<Event> *events, double from_s, double to_s) {
  if (events->empty() || (from_s <= 0 && to_s < 0)) return;
  int64_t t0 = events->front().t_ns;
  std::vector<Event> kept;
  for (const Event &e : *events) {
    double s = SecondsBetween(t0, e.t_ns);
    if (s >= from_s && (to_s < 0 || s < to_s)) kept.push_back(e);
  }
  events->swap(kept);
}

Replayer::Replayer(const Library &lib, const ReplayConfig &config) : lib_(lib), config_(config) {
  const QvnLibApiTable &api = lib.api();
  getters_[kOrientation] = api.QVN_FusionGetOrientation;
  getters_[kRotationVector] = api.QVN_FusionGetRotationVector;
  getters_[kGameRotationVector] = api.QVN_FusionGetGameRotationVector;
  getters_[kGeoMagnetic] = api.QVN_FusionGetGeoMagnetic;
  getters_[kGravity] = api.QVN_FusionGetGravity;
  getters_[kLinearAccel] = api.QVN_FusionGetLinearaccel;
  getters_[kVirtualGyro] = api.QVN_FusionGetVirtualGyro;
  qfusion_ = static_cast<const float *>(lib.Symbol("Qfusion"));
  orient_pre_ = static_cast<float *>(lib.Symbol("orient_pre"));
}

bool Replayer::Feed(const Event &e, StepRow *row, bool *stepped, std::string *error) {
  const QvnLibApiTable &api = lib_.api();
  *stepped = false;
  SensorEvent s = ToSensorEvent(e);
  counts_.per_sensor[static_cast<int>(e.sensor)]++;
  switch (e.sensor) {
    case Sensor::kAcc:
      api.QVN_CaliApiSetAccelData(&s);
      break;
    case Sensor::kGyr:
      if (config_.skip_early_gyro && !seen_mag_) {
        counts_.skipped_gyro++;
        break;
      }
      api.QVN_CaliApiSetGyroData(&s);
      break;
    case Sensor::kCur:
      // The reader keeps cur values within int64; saturating all the same.
      if (config_.on_current && !config_.on_current(SaturatingInt64(e.x), error)) return false;
      break;
    case Sensor::kMag: {
      seen_mag_ = true;
      std::memset(row, 0, sizeof *row);
      row->t_ns = e.t_ns;
      row->raw[0] = s.x;
      row->raw[1] = s.y;
      row->raw[2] = s.z;
      api.QVN_CaliApiSetMagData(&s);
      if (config_.before_cali) config_.before_cali();
      api.QVN_DoCaliAPI(&s, &row->cal);
      if (config_.after_cali) config_.after_cali(*row);
      for (int k = 0; k < kFusionOutputCount; ++k) getters_[k](&row->fusion[k]);
      for (int k = 0; k < 4; ++k) row->qfusion[k] = qfusion_ != nullptr ? qfusion_[k] : NAN;
      *stepped = true;
      if (config_.reinit_on_nan && config_.reinitialise && !AllFinite(*row, qfusion_ != nullptr)) {
        if (counts_.reinits++ == 0) counts_.first_reinit_ns = e.t_ns;
        config_.reinitialise();
        // Initialisation leaves the azimuth moving average's memory alone; a
        // NaN there would keep the orientation NaN and re-initialise forever.
        if (orient_pre_ != nullptr && !std::isfinite(orient_pre_[0])) orient_pre_[0] = 0.0f;
      }
      break;
    }
  }
  return true;
}

bool RunReplay(const Library &lib, const std::vector<Event> &events, const ReplayConfig &config,
               std::vector<StepRow> *rows, ReplayCounts *counts, std::string *error) {
  Replayer replayer(lib, config);
  StepRow row;
  bool stepped = false;
  for (const Event &e : events) {
    if (!replayer.Feed(e, &row, &stepped, error)) return false;
    if (stepped) rows->push_back(row);
  }
  *counts = replayer.counts();
  return true;
}

const char kStepCsvHeader[] =
    "t_ns,raw_x,raw_y,raw_z,cal_x,cal_y,cal_z,offset_x,offset_y,offset_z,accuracy,"
    "azimuth,pitch,roll,rv_x,rv_y,rv_z,rv_w,game_rv_x,game_rv_y,game_rv_z,game_rv_w,"
    "geomag_rv_x,geomag_rv_y,geomag_rv_z,gravity_x,gravity_y,gravity_z,"
    "linear_x,linear_y,linear_z,vgyro_x,vgyro_y,vgyro_z,fusion_t_ns";

void WriteStepRow(FILE *f, const StepRow &r) {
  // Values per fusion output in the column order of the header.
  static const int kValues[kFusionOutputCount] = {3, 4, 4, 3, 3, 3, 3};
  // %.9g round-trips every float32 exactly.
  std::fprintf(f, "%" PRId64 ",%.9g,%.9g,%.9g,%.9g,%.9g,%.9g,%.9g,%.9g,%.9g,%d", r.t_ns,
               double{r.raw[0]}, double{r.raw[1]}, double{r.raw[2]}, double{r.cal.x},
               double{r.cal.y}, double{r.cal.z}, double{r.cal.bias_x}, double{r.cal.bias_y},
               double{r.cal.bias_z}, r.cal.accuracy);
  for (int k = 0; k < kFusionOutputCount; ++k) {
    for (int v = 0; v < kValues[k]; ++v) std::fprintf(f, ",%.9g", double{r.fusion[k].values[v]});
  }
  std::fprintf(f, ",%" PRId64 "\n", r.fusion[kOrientation].timestamp);
}

bool WriteStepCsv(const std::string &path, const std::vector<StepRow> &rows, std::string *error) {
  OutputFile out;
  if (!out.Open(path, error)) return false;
  std::fprintf(out.file(), "%s\n", kStepCsvHeader);
  for (const StepRow &r : rows) WriteStepRow(out.file(), r);
  return out.Commit(error);
}

}  // namespace qvn_tools
