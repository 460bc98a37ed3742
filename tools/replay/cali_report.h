// What the replay says about calibration: every attempt and its verdict, the
// directions the samples covered, and how far the offset in force stayed from
// an independent whole-recording fit (the reference), with the time spent at
// accuracy 3 while it was far.
#ifndef QVNLIB_TOOLS_REPLAY_CALI_REPORT_H
#define QVNLIB_TOOLS_REPLAY_CALI_REPORT_H

#include <cmath>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "core/cali_attempts.h"
#include "core/cali_geometry.h"
#include "core/event_csv.h"
#include "replay/library.h"
#include "replay/replay_loop.h"

namespace qvn_tools {

// Distance between the offset in force and the reference above which time at
// accuracy 3 is flagged: 5 uT turns into up to 10-15 degrees of heading error
// where the horizontal field is 20-30 uT.
constexpr double kOffsetTolerance = 5.0;

// The library's frame for magnetometer samples: its fixed soft-iron matrix and
// axis remap, read after initialisation, applied to raw sensor values.
struct LibraryFrame {
  double sfi[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
  double sfi_inv[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
  int axis[3] = {1, 2, 3};
  void Read(const Library &lib);
  V3 FromSensor(V3 raw) const;
  V3 ToSensor(V3 lib) const;  // a centre back into the sensor frame
};

// The batch calibration of a whole recording (every sample at once, robust to
// disturbed spans), as a reference for the offset the library keeps.
struct OffsetReference {
  bool ok = false;
  std::string source;      // "this recording" or the events file it came from
  std::string error;       // why there is none
  V3 centre{0, 0, 0};      // offset in the library frame
  V3 centre_sensor{0, 0, 0};
  V3 sigma{0, 0, 0};       // 1 sigma of the offset
  double radius = 0, residual_rms = 0;
  bool soft_iron = false;  // a soft-iron matrix was fitted too (else a sphere)
  size_t samples = 0, inliers = 0;
  double coverage = 0;     // of the samples, about the centre
};

// Reference calibration of the magnetometer events, in the library frame.
OffsetReference FitReference(const std::vector<Event> &events, const LibraryFrame &frame,
                             const std::string &source);

// What the report keeps of each calibration step (36 bytes, so a streamed
// replay of any length keeps little).
struct CaliStep {
  int64_t t_ns;
  float raw[3];     // as handed to the library, sensor frame
  float offset[3];  // in force after the step, library frame
  int8_t accuracy;
};

struct CaliReportInput {
  const std::vector<CaliStep> *rows = nullptr;
  const AttemptDecoder *decoder = nullptr;
  const OffsetReference *reference = nullptr;
  const LibraryFrame *frame = nullptr;
  const double *true_offset = nullptr;  // sensor frame, from the simulator's truth; may be null
  int64_t t0_ns = 0;
};

// Per step: cumulative coverage about the reference centre, distance of the
// offset in force from the reference (NaN without one).
struct StepQuality {
  double coverage = NAN;
  double distance = NAN;
};
std::vector<StepQuality> StepQualities(const CaliReportInput &in);

// The attempts, coverage and offset-quality lines.
void PrintCaliReport(const CaliReportInput &in, FILE *out);
// The closing sentence: calibrated at t (how), or never calibrated because.
void PrintCaliVerdict(const CaliReportInput &in, FILE *out);

// Everything above for one replay, attached to its loop: reads the library's
// frame, fits the reference (on reference_events, or on the replayed events
// when that is empty), hooks the decoder around every calibration step, and
// after the replay hands PrintSummary and the CSV writers their input.
class CaliTracking {
 public:
  // Call after initialisation, before RunReplay. *warning is set when the
  // library lacks a name the decoder reads (attempts are then not decoded).
  void Attach(const Library &lib, const std::vector<Event> &events,
              const std::vector<Event> *reference_events, const std::string &reference_label,
              ReplayConfig *config, std::string *warning);
  // After the replay. true_offset: the simulator's, sensor frame (may be null).
  const CaliReportInput *Finish(int64_t t0_ns, const double *true_offset);

 private:
  LibraryFrame frame_;
  OffsetReference reference_;
  std::unique_ptr<AttemptDecoder> decoder_;
  std::vector<CaliStep> steps_;
  CaliReportInput input_;
  double true_offset_[3] = {0, 0, 0};
};

// attempts.csv: one row per attempt. quality.csv: one row per step with the
// batch count, coverage, distance, and the reference in both frames.
bool WriteAttemptsCsv(const std::string &path, const CaliReportInput &in, std::string *error);
bool WriteQualityCsv(const std::string &path, const CaliReportInput &in, std::string *error);

}  // namespace qvn_tools

#endif  // QVNLIB_TOOLS_REPLAY_CALI_REPORT_H
