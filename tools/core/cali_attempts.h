// Calibration attempts decoded from what the library exports.
//
// The library reports nothing to its host when a fit fails; what it leaves
// behind is its named state: the batch counters (dsc_data_num, dsc_data_size,
// the rejection run), the stage codes that the methods write into
// qvn_debug_log[2] and the validation into qvn_cali_log[0] (111 start, 222
// offset range, 333 matrix / sphere radius, 444 radius test, 555 passed), the
// validation's verdict and counter (mag_cali_check_err, mag_cali_check_ctn),
// the values it logs (qvn_cali_log[1..3]: fitted radius and mean distance in
// whole uT, count of samples off the shell; [4..9]: 1000 x the matrix
// elements xx yy zz yx zx zy), the attempt's level (mag_quad_accuracy), and
// the offset and accuracy in force.
//
// The decoder reads that state before and after every calibration step and
// turns each full batch into one attempt: when, by which method, over how
// many samples, the sphere of that batch (refitted here in double precision
// from the batch itself, which the library keeps), the verdict with the bound
// that refused it in words, and whether the driver adopted the result. It
// also counts why samples never made a batch (too close to the collected
// ones, interference hold), so that a recording that never calibrates can be
// explained.
//
// Nothing is written into the library: only reads.
#ifndef QVNLIB_TOOLS_CORE_CALI_ATTEMPTS_H
#define QVNLIB_TOOLS_CORE_CALI_ATTEMPTS_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "core/cali_geometry.h"

namespace qvn_tools {

// Address of an exported name, or nullptr.
using SymbolLookup = std::function<void *(const char *name)>;

enum class CaliMethod { kOval = 0, kGyro = 1, kBall = 2, kUnknown = 3 };
const char *MethodName(CaliMethod m);

// Why an attempt did not produce an offset, or none.
enum class CaliBound {
  kNone,             // passed
  kSphereFit,        // sphere fit failed (singular or imaginary radius)
  kSphereRadius,     // oval: the first-stage sphere's radius outside the range
  kEllipsoidFit,     // oval: ellipsoid fit failed
  kEmptyBatch,       // validation verdict 1
  kOffsetRange,      // verdict 2: an offset component beyond the sensor range
  kMatrix,           // verdict 3: a soft-iron element outside its bounds
  kRadiusAboveMax,   // verdict 4, first test
  kMeanOutside,      // verdict 4, second test
  kRadiusBelowMin,   // verdict 4, third test
  kOutliers,         // verdict 4, fourth test
  kNoRotation,       // gyroscope-aided: too little rotation (level 0)
  kGyroFit,          // gyroscope-aided: fit failed
  kGyroCheck,        // gyroscope-aided: offset range, mean distance or outliers
};
// Short stable name for CSV files ("outliers", "matrix", ...).
const char *BoundKey(CaliBound b);

// The limits in force at an attempt (as the driver set them for that sample).
struct CaliLimits {
  float field_range = 0;
  float spacing = 0;  // dsc_mag_distance
  float interference_threshold = 0;  // k7q_interference_threshold, per raw axis, uT
  float radius_max = 0, radius_min = 0, radius_wide = 0, out_rate = 0;
  float sfi_max[6] = {}, sfi_min[6] = {};  // xx yy zz yx zx zy
};

// The exported calibration state around one step.
struct CaliSnapshot {
  int16_t debug_log[4] = {};   // qvn_debug_log[0..3]: batch size, count, stage, rotation level
  int16_t cali_log[10] = {};   // qvn_cali_log[0..9]
  int16_t check_count = 0;     // mag_cali_check_ctn
  int16_t check_verdict = 0;   // mag_cali_check_err
  int16_t attempt_level = 0;   // mag_quad_accuracy
  int16_t batch_count = 0;     // dsc_data_num
  int16_t batch_size = 0;      // dsc_data_size
  int16_t reject_run = 0;      // dsc_reset_count
  int16_t reject_limit = 0;    // dsc_reset_threshold (0: batch size)
  int16_t mode = 0;            // mag_cali_mode
  int16_t accuracy = 0;        // qvn_accuracy
  int16_t interference = 0;    // interf_cnt_cnt: samples left of an interference period
  int16_t rate = 0;            // qvn_algo_odr
  uint16_t hold = 0;           // mag_interf_countdown: disturbance being waited out
  uint16_t logging = 0;        // g_en_mtkScpLog: the log values and stage 111 are written
  float offset[3] = {};        // hdi_array
  float rad_ratio = 1;
  float last_slot[3] = {};     // batch sample at index dsc_data_size - 1
  CaliLimits limits;
};

struct CaliAttempt {
  int64_t t_ns = 0;
  size_t step = 0;  // index of the calibration step
  CaliMethod method = CaliMethod::kUnknown;
  int samples = 0;
  // Sphere of the batch, refitted here (library frame, uT).
  bool fitted = false;
  V3 centre{0, 0, 0};
  double radius = 0;
  double coverage = 0;  // share of directions of the batch about the reference centre
  // What the library logged for its own fit (whole uT; -1 when not written).
  int logged_radius = -1, logged_mean = -1, logged_off_shell = -1;
  CaliBound bound = CaliBound::kNone;
  std::string why;  // the verdict in words
  bool passed = false;
  bool adopted = false;
  bool first_offset = false;  // adopted by the first-offset rule (sphere centre at level 1)
  int level = 0;              // level the attempt reached (mag_quad_accuracy)
  int accuracy_before = 0, accuracy_after = 0;
  float offset_after[3] = {};  // offset in force after the step
};

// Why samples did not make batches, over the whole replay.
struct CollectionStats {
  size_t steps = 0;
  size_t hold_steps = 0;          // holds: no fitting
  int64_t hold_ns = 0;
  int64_t disturbance_hold_ns = 0;  // the part started by a disturbance, not a rate change
  size_t interference_steps = 0;  // within an interference period (oval method)
  size_t interference_periods = 0;
  int64_t interference_ns = 0;
  float interference_threshold = 0;
  size_t repeated_time = 0;       // same timestamp as the step before: skipped
  size_t admitted = 0;            // samples stored in the batch
  size_t too_close = 0;           // samples refused by the distance test
  size_t emptied = 0;             // batch thrown away after too many refusals in a row
  size_t level_clears = 0;        // batch emptied by a change of accuracy level
  int most_filled = 0;            // largest batch count reached
  int batch_size = 0;             // batch size at the end
  float spacing = 0;              // distance a new sample must keep from the stored ones, uT
};

class AttemptDecoder {
 public:
  // Looks every name up once; ok() is false (missing() names them) when the
  // library lacks one.
  explicit AttemptDecoder(const SymbolLookup &lookup);
  bool ok() const { return missing_.empty(); }
  const std::string &missing() const { return missing_; }

  // Directions for the coverage of each batch are taken about this centre
  // (library frame); without it, about the batch's own sphere.
  void SetReferenceCentre(V3 c) {
    reference_ = c;
    has_reference_ = true;
  }

  // Around every QVN_DoCaliAPI call.
  void BeforeStep();
  void AfterStep(int64_t t_ns);

  const std::vector<CaliAttempt> &attempts() const { return attempts_; }
  std::vector<CaliAttempt> &attempts() { return attempts_; }
  const CollectionStats &stats() const { return stats_; }
  // Batch count after every step.
  const std::vector<int16_t> &batch_counts() const { return fills_; }

  // Reads the state now (also used by tests).
  CaliSnapshot Read() const;

 private:
  struct Vars;
  void Decode(const CaliSnapshot &b, const CaliSnapshot &a, int64_t t_ns);
  std::shared_ptr<const Vars> vars_;
  std::string missing_;
  CaliSnapshot before_;
  std::vector<V3> batch_;  // the batch as it stood before a step that may fill it
  bool has_reference_ = false;
  V3 reference_{0, 0, 0};
  size_t step_ = 0;
  bool hold_from_disturbance_ = false;
  int64_t last_t_ = 0;
  bool have_last_t_ = false;
  std::vector<CaliAttempt> attempts_;
  std::vector<int16_t> fills_;
  CollectionStats stats_;
};

// One sentence: calibrated at t (how), or never calibrated because ...
std::string CalibrationVerdict(const std::vector<CaliAttempt> &attempts,
                               const CollectionStats &stats, int64_t t0_ns);

// Refusals counted by bound, most frequent first: "outlier share 12, mean
// distance 3".
std::string RefusalCounts(const std::vector<CaliAttempt> &attempts);

}  // namespace qvn_tools

#endif  // QVNLIB_TOOLS_CORE_CALI_ATTEMPTS_H
