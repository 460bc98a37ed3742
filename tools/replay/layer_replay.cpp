// qvn_replay through the host layer.
#include "replay/layer_replay.h"

#include <cinttypes>
#include <cmath>
#include <cstring>

#include "qvn_host_layer.h"

namespace qvn_tools {

bool OpenHostLayer(const Library &lib, int hw_gyro, const std::vector<Assignment> &sets,
                   std::string *error) {
  QvnLayerConfig config;
  qvn_layer_default_config(&config);
  config.library_path = lib.path().c_str();
  config.chip.hwGyro = static_cast<int8_t>(hw_gyro);
  config.save_interval_s = -1;  // no file: nothing to save
  char why[256];
  if (qvn_layer_open(&config, why, sizeof why) != 0) {
    *error = std::string("host layer: ") + why;
    return false;
  }
  for (const Assignment &a : sets) {
    for (size_t k = a.first; k < a.first + a.count && k < a.info->count(); ++k) {
      if (qvn_layer_set_tunable(a.info->name, k * a.info->element_size, &a.bits,
                                a.info->element_size) != 0) {
        *error = "host layer: cannot keep '" + a.text +
                 "' in its tunable set (at most 64 element writes)";
        return false;
      }
    }
  }
  // The set is in place for the next initialisation; this is it.
  qvn_layer_recover();
  return true;
}

LayerReplayer::LayerReplayer(const Library &lib, const ReplayConfig &config)
    : config_(config), qfusion_(static_cast<const float *>(lib.Symbol("Qfusion"))) {
  std::memset(&last_, 0, sizeof last_);
}

bool LayerReplayer::Feed(const Event &e, StepRow *row, bool *stepped, std::string *error) {
  static const QvnLayerOutput kOrder[kFusionOutputCount] = {
      QVN_LAYER_ORIENTATION, QVN_LAYER_ROTATION_VECTOR, QVN_LAYER_GAME_ROTATION_VECTOR,
      QVN_LAYER_GEOMAGNETIC, QVN_LAYER_GRAVITY,         QVN_LAYER_LINEAR_ACCEL,
      QVN_LAYER_VIRTUAL_GYRO};
  *stepped = false;
  SensorEvent s = ToSensorEvent(e);
  counts_.per_sensor[static_cast<int>(e.sensor)]++;
  switch (e.sensor) {
    case Sensor::kAcc: qvn_layer_set_accel(&s); break;
    case Sensor::kGyr:
      if (qvn_layer_set_gyro(&s) == QVN_LAYER_HELD) counts_.skipped_gyro++;
      break;
    case Sensor::kCur:
      if (config_.on_current && !config_.on_current(static_cast<int64_t>(e.x), error))
        return false;
      break;
    case Sensor::kMag: {
      std::memset(static_cast<void *>(row), 0, sizeof *row);
      row->t_ns = e.t_ns;
      row->raw[0] = s.x;
      row->raw[1] = s.y;
      row->raw[2] = s.z;
      int code = qvn_layer_set_mag(&s, &row->cal);
      if (code == QVN_LAYER_PASSED || code == QVN_LAYER_RECOVERED) {
        last_ = row->cal;
      } else {
        row->cal = last_;  // dropped: the host goes on with its last result
        row->cal.timestamp = e.t_ns;
      }
      for (int k = 0; k < kFusionOutputCount; ++k) qvn_layer_get(kOrder[k], &row->fusion[k]);
      for (int k = 0; k < 4; ++k) row->qfusion[k] = qfusion_ != nullptr ? qfusion_[k] : NAN;
      *stepped = true;
      break;
    }
  }
  return true;
}

const ReplayCounts &LayerReplayer::counts() {
  QvnLayerCounters n;
  if (qvn_layer_counters(&n) == 0) {
    counts_.reinits = n.recoveries;
    counts_.first_reinit_ns = n.first_recovery_ns;
  }
  return counts_;
}

void PrintLayerCounters(FILE *out) {
  QvnLayerCounters n;
  if (qvn_layer_counters(&n) != 0) return;
  static const char *const kSensors[] = {"acc", "gyr", "mag"};
  std::fprintf(out, "host layer:\n");
  for (int s = 0; s < QVN_LAYER_SENSORS; ++s) {
    std::fprintf(out,
                 "  %s: %" PRIu64 " passed, dropped %" PRIu64 " not finite, %" PRIu64
                 " out of range, %" PRIu64 " back in time\n",
                 kSensors[s], n.passed[s], n.non_finite[s], n.out_of_range[s], n.clock[s]);
  }
  std::fprintf(out, "  gyroscope held before the first magnetometer sample: %" PRIu64 "\n",
               n.held_gyro);
  std::fprintf(out, "  recoveries: %" PRIu64, n.recoveries);
  if (n.recoveries > 0) {
    std::fprintf(out, " (first at %" PRId64 " ns, last at %" PRId64 " ns)", n.first_recovery_ns,
                 n.last_recovery_ns);
  }
  std::fprintf(out, "\n");
}

}  // namespace qvn_tools
