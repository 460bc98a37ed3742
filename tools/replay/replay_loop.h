// Driving the library with recorded events in the sensor service's order, and
// the per-step record of everything it returned.
#ifndef QVNLIB_TOOLS_REPLAY_REPLAY_LOOP_H
#define QVNLIB_TOOLS_REPLAY_REPLAY_LOOP_H

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "core/event_csv.h"
#include "core/tunables.h"
#include "qvnlib/qvnlib.h"
#include "replay/library.h"

namespace qvn_tools {

// The seven fusion getters, polled after every calibration step.
enum FusionOutput {
  kOrientation,
  kRotationVector,
  kGameRotationVector,
  kGeoMagnetic,
  kGravity,
  kLinearAccel,
  kVirtualGyro,
  kFusionOutputCount
};

// One calibration step: the magnetometer sample as handed over, the
// CaliResult, and the fusion outputs polled right after it.
struct StepRow {
  int64_t t_ns;
  float raw[3];
  CaliResult cal;
  FusionEvent fusion[kFusionOutputCount];
  float qfusion[4];  // the attitude quaternion (w, x, y, z) read by name, NaN if not exported
};

struct ReplayConfig {
  // Drop gyroscope events until the first magnetometer event.
  bool skip_early_gyro = false;
  // Called for each "cur" event before the following samples; returns false
  // with a message to stop the replay.
  std::function<bool(int64_t current, std::string *error)> on_current;
  // After a step whose outputs are not finite, call reinitialise (the host's
  // other remedy for a NaN attitude: QVN_CaliInitLib again) and reset a NaN
  // azimuth memory of the moving average (orient_pre[0] = 0).
  bool reinit_on_nan = false;
  std::function<void()> reinitialise;
  // Called right before and right after every QVN_DoCaliAPI (the calibration
  // attempt decoder reads the library's state there).
  std::function<void()> before_cali;
  std::function<void(const StepRow &)> after_cali;
};

struct ReplayCounts {
  size_t per_sensor[4] = {0, 0, 0, 0};  // indexed by Sensor
  size_t skipped_gyro = 0;
  size_t reinits = 0;           // re-initialisations after outputs that were not finite
  int64_t first_reinit_ns = 0;  // time of the first of them
};

// Prints warnings about inputs that the library handles as designed but that
// surprise integrators: events out of time order (replayed as they stand) and,
// with a hardware gyroscope, gyroscope events before the first magnetometer one.
void WarnAboutInput(const std::string &path, const std::vector<Event> &events, int hw_gyro,
                    bool skip_early_gyro, FILE *out);

// Keeps the events from from_s to to_s seconds after the first one (to_s < 0:
// to the end).
void CutEvents(std::vector<Event> *events, double from_s, double to_s);

// Prints the warning about a gyroscope event (at line) that with --hw-gyro 1
// comes before the first magnetometer event.
void WarnEarlyGyro(const std::string &path, int line, FILE *out);

// Hands events to the library one at a time, in the order given: acc ->
// SetAccelData; gyr -> SetGyroData; mag -> SetMagData, DoCaliAPI, then every
// getter into a StepRow. Initialisation is the caller's.
class Replayer {
 public:
  Replayer(const Library &lib, const ReplayConfig &config);
  // Replays e; true with *row filled when it was a calibration step. False
  // with *error only when on_current fails.
  bool Feed(const Event &e, StepRow *row, bool *stepped, std::string *error);
  const ReplayCounts &counts() const { return counts_; }

 private:
  const Library &lib_;
  const ReplayConfig &config_;
  QvnFusionGetFn getters_[kFusionOutputCount];
  const float *qfusion_;
  float *orient_pre_;
  bool seen_mag_ = false;
  ReplayCounts counts_;
};

// The host's initialisation with chosen values: they are written before
// QVN_CaliInitLib (values that it copies) and after it (values that the
// device profile rewrites). The returned function initialises; calling it
// again re-initialises, as a host's remedy does. lib and sets must outlive it.
std::function<void()> Initialiser(const Library &lib, int hw_gyro,
                                  const std::vector<Assignment> &sets);

// The library's sample struct for an event, with the host's sample status.
SensorEvent ToSensorEvent(const Event &e);

// Replays events in file order through a Replayer. Returns false (with
// *error) only if on_current fails.
bool RunReplay(const Library &lib, const std::vector<Event> &events, const ReplayConfig &config,
               std::vector<StepRow> *rows, ReplayCounts *counts, std::string *error);

// Header of the step CSV (shared with the plotting script).
extern const char kStepCsvHeader[];

// One row of the step CSV (no header), %.9g floats that round-trip.
void WriteStepRow(FILE *f, const StepRow &r);

// Writes the rows to path through a temporary file in the same folder that is
// renamed into place only when complete; nothing is left behind on failure.
// Only a regular file (new or existing) is written.
bool WriteStepCsv(const std::string &path, const std::vector<StepRow> &rows, std::string *error);

}  // namespace qvn_tools

#endif  // QVNLIB_TOOLS_REPLAY_REPLAY_LOOP_H
