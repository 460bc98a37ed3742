// The host layer: input hygiene, order, recovery and the kept calibration
// around the core's entry table.
#include "qvn_host_layer.h"

#include <android/log.h>
#include <dlfcn.h>
#include <link.h>
#include <stdio.h>
#include <string.h>

#include <cmath>
#include <new>
#include <string>

#include "cal_file.h"
#include "load_state.h"

namespace qvn_layer {
namespace {

constexpr float kDefaultLimit[QVN_LAYER_SENSORS] = {160.0f, 35.0f, 3000.0f};
constexpr double kDefaultSaveInterval = 60.0;
constexpr double kDefaultLogInterval = 10.0;
constexpr char kLogTag[] = "qvn_layer";

// States the layer watches after every step: the outputs and the filter
// memories that feed them. A non-finite value in any of them does not leave
// on its own (initialisation resets none of the output memories), so it
// calls for a recovery.
struct Watched {
  const char *name;
  size_t floats;
};
constexpr Watched kWatched[] = {
    {"Qfusion", 4},      {"qvn_rov", 4},      {"qvn_ori", 3},      {"qvn_gra", 3},
    {"qvn_lin", 3},      {"qvn_gyr", 3},      {"hdi_array", 3},    {"g_fusion_mag", 3},
    {"mag_cali_pre", 3}, {"orient_pre", 3},   {"magnet_pre", 3},   {"kmf_p", 1},
    {"acckmf_p", 1},     {"m_kmf_p", 1},      {"kmf_acc", 3},      {"kmf_mag", 3},
    {"m_kmf_output", 3}, {"qacc_weight", 1},  {"qmag_weight", 1},
};
constexpr size_t kWatchedCount = sizeof kWatched / sizeof kWatched[0];

struct Layer {
  bool open = false;
  void *handle = nullptr;
  const QvnLibApiTable *api = nullptr;
  QvnLayerConfig config;
  char library_path[4096];
  char state_path[4096];
  float limit[QVN_LAYER_SENSORS];
  LoadState load_state;

  const float *watched[kWatchedCount];
  int32_t *cali_parameter = nullptr;   // qvn_caliParameter
  int16_t *accuracy = nullptr;         // g_accuracy
  const int16_t *ramp_length = nullptr;  // fusion_start_delay_time

  // Per run (forgotten by a recovery).
  bool have_time[QVN_LAYER_SENSORS];
  int64_t last_time[QVN_LAYER_SENSORS];
  bool gyro_released = false;
  bool tunables_suspended = false;  // the host's set is left out (see Recover)
  bool unproven = false;            // recovered, and not yet run kStepsToTrust good steps
  int good_steps = 0;

  // The host's tunable set and the last good calibration.
  Calibration kept;
  bool kept_dirty = false;
  int64_t last_save_ns = 0;
  bool saved_once = false;

  int64_t now_ns = 0;
  int64_t last_log_ns = 0;
  bool logged_once = false;
  uint64_t recoveries_at_log = 0;
  QvnLayerCounters counters;
};

Layer g_layer;

bool CheckTunable(const char *name, uint32_t offset, uint32_t size, void *context) {
  void *handle = context;
  void *p = dlsym(handle, name);
  if (p == nullptr) return false;
  Dl_info info;
  const ElfW(Sym) *sym = nullptr;
  if (dladdr1(p, &info, reinterpret_cast<void **>(const_cast<ElfW(Sym) **>(&sym)), RTLD_DL_SYMENT) == 0 || sym == nullptr)
    return false;
  return ELF64_ST_TYPE(sym->st_info) == STT_OBJECT && offset + size <= sym->st_size &&
         offset + size > offset;
}

void ApplyTunables(const Layer &l) {
  for (size_t i = 0; i < l.kept.tunable_count; ++i) {
    const TunableWrite &w = l.kept.tunables[i];
    unsigned char *p = static_cast<unsigned char *>(dlsym(l.handle, w.name));
    if (p != nullptr) memcpy(p + w.offset, w.bytes, w.size);
  }
}

void ForgetRun(Layer &l) {
  for (int s = 0; s < QVN_LAYER_SENSORS; ++s) {
    l.have_time[s] = false;
    l.last_time[s] = 0;
  }
  l.gyro_released = false;
}

// The host's start-up sequence: tunables (before initialisation copies
// them and after the device profile rewrites them), the kept offset and
// accuracy through the values that initialisation restores, then the exact
// offset.
void Initialise(Layer &l) {
  if (!l.tunables_suspended) ApplyTunables(l);
  if (l.kept.has_offset && l.cali_parameter != nullptr && l.accuracy != nullptr) {
    // Hundredths of a microtesla, truncated, as the core keeps them; a host
    // limit so wide that the product leaves int32 saturates.
    for (int i = 0; i < 3; ++i) {
      const float h = l.kept.offset[i] * 100.0f;
      l.cali_parameter[i] = h >= 2147483520.0f    ? INT32_MAX
                            : h <= -2147483648.0f ? INT32_MIN
                                                  : static_cast<int32_t>(h);
    }
    *l.accuracy = l.kept.accuracy;
  }
  l.api->QVN_CaliInitLib(&l.config.chip);
  if (!l.tunables_suspended) ApplyTunables(l);
  if (l.kept.has_offset) l.api->QVN_CaliApiSetOffset(l.kept.offset);
}

void LogRecovery(Layer &l, const char *why) {
  double interval = l.config.log_interval_s > 0 ? l.config.log_interval_s : kDefaultLogInterval;
  // In double: sample times may be anywhere in int64 (a clock that jumps or
  // goes back logs at once).
  const double since = static_cast<double>(l.now_ns) - static_cast<double>(l.last_log_ns);
  if (l.logged_once && since >= 0 && since < interval * 1e9) return;
  __android_log_print(ANDROID_LOG_WARN, kLogTag,
                      "recovered the core at %lld ns (%s not finite); %llu recoveries since the "
                      "last line, %llu in all",
                      static_cast<long long>(l.now_ns), why,
                      static_cast<unsigned long long>(l.counters.recoveries - l.recoveries_at_log),
                      static_cast<unsigned long long>(l.counters.recoveries));
  l.logged_once = true;
  l.last_log_ns = l.now_ns;
  l.recoveries_at_log = l.counters.recoveries;
}

// A recovered core that breaks again before it has run a few good steps was
// most likely broken by the host's own tunable set, which every recovery
// re-applies: the next recovery leaves the set out, until the host changes
// it, instead of recovering into the same NaN at every step.
constexpr int kStepsToTrust = 10;

void Recover(Layer &l, const char *why) {
  if (why != nullptr && l.unproven && l.kept.tunable_count > 0 && !l.tunables_suspended) {
    l.tunables_suspended = true;
    l.counters.tunables_suspended++;
    __android_log_print(ANDROID_LOG_WARN, kLogTag,
                        "the core broke again right after a recovery: the host's tunable set is "
                        "left out until the host changes it");
  }
  if (why != nullptr) {
    l.unproven = true;
    l.good_steps = 0;
  }
  l.load_state.Restore();
  ForgetRun(l);
  Initialise(l);
  if (why == nullptr) return;  // asked for by the host: not a recovery from a fault
  l.counters.recoveries++;
  if (l.counters.first_recovery_ns == 0) l.counters.first_recovery_ns = l.now_ns;
  l.counters.last_recovery_ns = l.now_ns;
  LogRecovery(l, why);
}

void Proven(Layer &l) {
  if (l.unproven && ++l.good_steps >= kStepsToTrust) l.unproven = false;
}

bool Finite3(float x, float y, float z) {
  return std::isfinite(x) && std::isfinite(y) && std::isfinite(z);
}

// The name of the first watched state that is not finite, or nullptr.
const char *BrokenState(const Layer &l) {
  for (size_t i = 0; i < kWatchedCount; ++i) {
    const float *p = l.watched[i];
    if (p == nullptr) continue;
    for (size_t k = 0; k < kWatched[i].floats; ++k) {
      if (!std::isfinite(p[k])) return kWatched[i].name;
    }
  }
  return nullptr;
}

const char *BrokenResult(const CaliResult &r) {
  if (!Finite3(r.x, r.y, r.z)) return "calibrated field";
  if (!Finite3(r.bias_x, r.bias_y, r.bias_z)) return "offset";
  return nullptr;
}

void Save(Layer &l) {
  if (l.state_path[0] == '\0') return;
  char message[256];
  if (WriteCalibration(l.state_path, l.kept, message, sizeof message)) {
    l.counters.saves++;
    l.kept_dirty = false;
  } else {
    l.counters.save_failures++;
    __android_log_print(ANDROID_LOG_WARN, kLogTag, "%s", message);
  }
  l.last_save_ns = l.now_ns;
  l.saved_once = true;
}

// A step whose outputs are all finite with an accuracy above 0: its offset
// is the one to come back to.
void KeepGood(Layer &l, const CaliResult &r) {
  if (r.accuracy <= 0) return;
  const float offset[3] = {r.bias_x, r.bias_y, r.bias_z};
  // An offset beyond the magnetometer's range is no calibration to come back
  // to (a host wrote it, or the core was fed nonsense).
  const float lim = l.limit[QVN_LAYER_MAG];
  if (std::fabs(offset[0]) > lim || std::fabs(offset[1]) > lim || std::fabs(offset[2]) > lim)
    return;
  if (l.kept.has_offset && memcmp(l.kept.offset, offset, sizeof offset) == 0 &&
      l.kept.accuracy == r.accuracy)
    return;
  memcpy(l.kept.offset, offset, sizeof offset);
  l.kept.accuracy = r.accuracy;
  l.kept.has_offset = true;
  l.kept_dirty = true;
  double interval =
      l.config.save_interval_s == 0 ? kDefaultSaveInterval : l.config.save_interval_s;
  if (interval < 0) return;
  const double since = static_cast<double>(l.now_ns) - static_cast<double>(l.last_save_ns);
  if (!l.saved_once || since < 0 || since >= interval * 1e9) Save(l);
}

// Hygiene shared by the three sensors. Returns QVN_LAYER_PASSED or the reason.
int Admit(Layer &l, int sensor, const SensorEvent *e) {
  if (!Finite3(e->x, e->y, e->z)) {
    l.counters.non_finite[sensor]++;
    return QVN_LAYER_NON_FINITE;
  }
  float lim = l.limit[sensor];
  if (std::fabs(e->x) > lim || std::fabs(e->y) > lim || std::fabs(e->z) > lim) {
    l.counters.out_of_range[sensor]++;
    return QVN_LAYER_OUT_OF_RANGE;
  }
  if (l.have_time[sensor] && e->timestamp < l.last_time[sensor]) {
    l.counters.clock[sensor]++;
    return QVN_LAYER_CLOCK;
  }
  l.have_time[sensor] = true;
  l.last_time[sensor] = e->timestamp;
  l.now_ns = e->timestamp;
  return QVN_LAYER_PASSED;
}

void Resolve(Layer &l) {
  for (size_t i = 0; i < kWatchedCount; ++i) {
    l.watched[i] = static_cast<const float *>(dlsym(l.handle, kWatched[i].name));
  }
  l.cali_parameter = static_cast<int32_t *>(dlsym(l.handle, "qvn_caliParameter"));
  l.accuracy = static_cast<int16_t *>(dlsym(l.handle, "g_accuracy"));
  l.ramp_length = static_cast<const int16_t *>(dlsym(l.handle, "fusion_start_delay_time"));
}

}  // namespace
}  // namespace qvn_layer

using qvn_layer::g_layer;

extern "C" {

void qvn_layer_default_config(QvnLayerConfig *config) {
  memset(config, 0, sizeof *config);
  config->chip.hwGyro = 1;
}

int qvn_layer_open(const QvnLayerConfig *config, char *error, size_t error_size) {
  using namespace qvn_layer;
  Layer &l = g_layer;
  if (l.open) {
    Say(error, error_size, "the host layer is open already");
    return -1;
  }
  l.counters = QvnLayerCounters();
  l.config = *config;
  snprintf(l.library_path, sizeof l.library_path, "%s",
           config->library_path != nullptr ? config->library_path : "libqvnlib.so");
  snprintf(l.state_path, sizeof l.state_path, "%s",
           config->state_path != nullptr ? config->state_path : "");
  l.config.library_path = l.library_path;
  l.config.state_path = l.state_path;
  for (int s = 0; s < QVN_LAYER_SENSORS; ++s) {
    l.limit[s] = config->limit[s] > 0 ? config->limit[s] : kDefaultLimit[s];
  }
  l.handle = dlopen(l.library_path, RTLD_NOW | RTLD_LOCAL);
  if (l.handle == nullptr) {
    const char *why = dlerror();
    Say(error, error_size, "cannot load %s: %s", l.library_path, why != nullptr ? why : "?");
    return -1;
  }
  l.api = static_cast<const QvnLibApiTable *>(dlsym(l.handle, QVNLIB_TABLE_SYMBOL));
  std::string why;
  if (l.api == nullptr) {
    Say(error, error_size, "%s does not export %s", l.library_path, QVNLIB_TABLE_SYMBOL);
  } else if (!l.load_state.Capture(l.api, &why)) {
    Say(error, error_size, "%s", why.c_str());
  } else {
    why.clear();
  }
  if (l.api == nullptr || !why.empty()) {
    dlclose(l.handle);
    l.handle = nullptr;
    return -1;
  }
  Resolve(l);
  l.kept = Calibration();
  l.kept_dirty = false;
  l.tunables_suspended = false;
  l.unproven = false;
  l.good_steps = 0;
  l.saved_once = false;
  l.logged_once = false;
  l.recoveries_at_log = 0;
  l.now_ns = 0;
  ForgetRun(l);
  l.counters.load_status = QVN_LAYER_FILE_NONE;
  if (l.state_path[0] != '\0') {
    int r = ReadCalibration(l.state_path, l.limit[QVN_LAYER_MAG], CheckTunable, l.handle, &l.kept,
                            l.counters.load_message, sizeof l.counters.load_message);
    l.counters.load_status = r > 0 ? QVN_LAYER_FILE_LOADED
                                   : (r == 0 ? QVN_LAYER_FILE_NONE : QVN_LAYER_FILE_REFUSED);
    if (r < 0) __android_log_print(ANDROID_LOG_WARN, kLogTag, "%s", l.counters.load_message);
  } else {
    Say(l.counters.load_message, sizeof l.counters.load_message, "no calibration file configured");
  }
  l.open = true;
  Initialise(l);
  l.api->QVN_FusionEnableLib(1);
  return 0;
}

void qvn_layer_close(void) {
  using namespace qvn_layer;
  Layer &l = g_layer;
  if (!l.open) return;
  if (l.kept_dirty) Save(l);
  l.load_state.Restore();  // the copy's memory is kept for the next open
  dlclose(l.handle);
  l.handle = nullptr;
  l.api = nullptr;
  l.open = false;
}

int qvn_layer_set_accel(const SensorEvent *event) {
  using namespace qvn_layer;
  Layer &l = g_layer;
  if (!l.open) return QVN_LAYER_NOT_OPEN;
  int code = Admit(l, QVN_LAYER_ACC, event);
  if (code != QVN_LAYER_PASSED) return code;
  l.counters.passed[QVN_LAYER_ACC]++;
  l.api->QVN_CaliApiSetAccelData(event);
  return QVN_LAYER_PASSED;
}

int qvn_layer_set_gyro(const SensorEvent *event) {
  using namespace qvn_layer;
  Layer &l = g_layer;
  if (!l.open) return QVN_LAYER_NOT_OPEN;
  int code = Admit(l, QVN_LAYER_GYRO, event);
  if (code != QVN_LAYER_PASSED) return code;
  // With a hardware gyroscope the fusion step runs here; before the core has
  // taken a magnetometer sample its start-up ramp has no length (0/0).
  if (l.config.chip.hwGyro == 1 && !l.gyro_released) {
    if (l.ramp_length != nullptr && *l.ramp_length == 0) {
      l.counters.held_gyro++;
      return QVN_LAYER_HELD;
    }
    l.gyro_released = true;
  }
  l.counters.passed[QVN_LAYER_GYRO]++;
  l.api->QVN_CaliApiSetGyroData(event);
  if (l.config.chip.hwGyro != 1) return QVN_LAYER_PASSED;
  const char *broken = BrokenState(l);
  if (broken == nullptr) {
    Proven(l);
    return QVN_LAYER_PASSED;
  }
  Recover(l, broken);
  return QVN_LAYER_RECOVERED;
}

int qvn_layer_set_mag(const SensorEvent *event, CaliResult *out) {
  using namespace qvn_layer;
  Layer &l = g_layer;
  if (!l.open) return QVN_LAYER_NOT_OPEN;
  int code = Admit(l, QVN_LAYER_MAG, event);
  if (code != QVN_LAYER_PASSED) return code;
  l.counters.passed[QVN_LAYER_MAG]++;
  l.api->QVN_CaliApiSetMagData(event);
  l.api->QVN_DoCaliAPI(event, out);
  const char *broken = BrokenResult(*out);
  if (broken == nullptr) broken = BrokenState(l);
  if (broken == nullptr) {
    Proven(l);
    KeepGood(l, *out);
    return QVN_LAYER_PASSED;
  }
  // The sample itself was good: it is the first one of the recovered core.
  // Should it break that core again, the second recovery leaves the host's
  // tunable set out (see Recover).
  for (int attempt = 0; attempt < 2 && broken != nullptr; ++attempt) {
    Recover(l, broken);
    l.have_time[QVN_LAYER_MAG] = true;
    l.last_time[QVN_LAYER_MAG] = event->timestamp;
    l.api->QVN_CaliApiSetMagData(event);
    l.api->QVN_DoCaliAPI(event, out);
    broken = BrokenResult(*out);
    if (broken == nullptr) broken = BrokenState(l);
  }
  if (broken == nullptr) Proven(l);
  return QVN_LAYER_RECOVERED;
}

int qvn_layer_get(QvnLayerOutput which, FusionEvent *out) {
  qvn_layer::Layer &l = g_layer;
  if (!l.open) return -1;
  const QvnLibApiTable &a = *l.api;
  const QvnFusionGetFn getters[QVN_LAYER_OUTPUTS] = {
      a.QVN_FusionGetGravity,         a.QVN_FusionGetRotationVector,
      a.QVN_FusionGetOrientation,     a.QVN_FusionGetLinearaccel,
      a.QVN_FusionGetGameRotationVector, a.QVN_FusionGetGeoMagnetic,
      a.QVN_FusionGetVirtualGyro};
  if (static_cast<int>(which) < 0 || which >= QVN_LAYER_OUTPUTS) return -1;
  getters[which](out);
  return 0;
}

int qvn_layer_get_offset(float out[3]) {
  if (!g_layer.open) return -1;
  g_layer.api->QVN_CaliApiGetOffset(out);
  return 0;
}

int qvn_layer_set_offset(const float in[3]) {
  using namespace qvn_layer;
  Layer &l = g_layer;
  if (!l.open) return QVN_LAYER_NOT_OPEN;
  if (!Finite3(in[0], in[1], in[2])) {
    l.counters.offsets_refused++;
    return QVN_LAYER_NON_FINITE;
  }
  float lim = l.limit[QVN_LAYER_MAG];
  if (std::fabs(in[0]) > lim || std::fabs(in[1]) > lim || std::fabs(in[2]) > lim) {
    l.counters.offsets_refused++;
    return QVN_LAYER_OUT_OF_RANGE;
  }
  l.api->QVN_CaliApiSetOffset(in);
  return QVN_LAYER_PASSED;
}

int qvn_layer_set_tunable(const char *name, size_t byte_offset, const void *value, size_t size) {
  using namespace qvn_layer;
  Layer &l = g_layer;
  if (!l.open || name == nullptr || value == nullptr || size == 0 || size > kMaxTunableBytes ||
      strlen(name) > kMaxNameLength || byte_offset > 0xffffu ||
      !CheckTunable(name, static_cast<uint32_t>(byte_offset), static_cast<uint32_t>(size),
                    l.handle))
    return -1;
  TunableWrite *slot = nullptr;
  for (size_t i = 0; i < l.kept.tunable_count; ++i) {
    TunableWrite &w = l.kept.tunables[i];
    if (strcmp(w.name, name) == 0 && w.offset == byte_offset && w.size == size) slot = &w;
  }
  if (slot == nullptr) {
    if (l.kept.tunable_count == kMaxTunables) return -1;
    slot = &l.kept.tunables[l.kept.tunable_count++];
    snprintf(slot->name, sizeof slot->name, "%s", name);
    slot->offset = static_cast<uint32_t>(byte_offset);
    slot->size = static_cast<uint32_t>(size);
  }
  memcpy(slot->bytes, value, size);
  l.tunables_suspended = false;
  unsigned char *p = static_cast<unsigned char *>(dlsym(l.handle, name));
  memcpy(p + byte_offset, value, size);
  l.kept_dirty = true;
  return 0;
}

void qvn_layer_clear_tunables(void) {
  g_layer.tunables_suspended = false;
  if (g_layer.kept.tunable_count > 0) g_layer.kept_dirty = true;
  g_layer.kept.tunable_count = 0;
}

int qvn_layer_recover(void) {
  if (!g_layer.open) return -1;
  g_layer.tunables_suspended = false;
  qvn_layer::Recover(g_layer, nullptr);
  return 0;
}

int qvn_layer_reset_to_load_state(void) {
  if (!g_layer.open) return -1;
  g_layer.load_state.Restore();
  qvn_layer::ForgetRun(g_layer);
  return 0;
}

int qvn_layer_save(char *error, size_t error_size) {
  using namespace qvn_layer;
  Layer &l = g_layer;
  if (!l.open) {
    Say(error, error_size, "the host layer is not open");
    return -1;
  }
  if (l.state_path[0] == '\0') {
    Say(error, error_size, "no calibration file configured");
    return -1;
  }
  if (!WriteCalibration(l.state_path, l.kept, error, error_size)) {
    l.counters.save_failures++;
    return -1;
  }
  l.counters.saves++;
  l.kept_dirty = false;
  return 0;
}

void qvn_layer_forget_calibration(void) {
  g_layer.kept.has_offset = false;
  g_layer.kept.accuracy = 0;
  memset(g_layer.kept.offset, 0, sizeof g_layer.kept.offset);
}

int qvn_layer_get_kept_calibration(float offset[3], int16_t *accuracy) {
  const qvn_layer::Calibration &k = g_layer.kept;
  for (int i = 0; i < 3; ++i) offset[i] = k.has_offset ? k.offset[i] : 0.0f;
  *accuracy = k.has_offset ? k.accuracy : 0;
  return k.has_offset ? 1 : 0;
}

int qvn_layer_set_kept_calibration(const float offset[3], int16_t accuracy) {
  qvn_layer::Layer &l = g_layer;
  float lim = l.open ? l.limit[QVN_LAYER_MAG] : 0.0f;
  for (int i = 0; i < 3; ++i) {
    if (!std::isfinite(offset[i]) || std::fabs(offset[i]) > lim) return -1;
  }
  if (accuracy < 0 || accuracy > 3) return -1;
  memcpy(l.kept.offset, offset, sizeof l.kept.offset);
  l.kept.accuracy = accuracy;
  l.kept.has_offset = true;
  l.kept_dirty = true;
  return 0;
}

int qvn_layer_counters(QvnLayerCounters *out) {
  if (!g_layer.open) return -1;
  *out = g_layer.counters;
  return 0;
}

void *qvn_layer_library_handle(void) { return g_layer.open ? g_layer.handle : nullptr; }

}  // extern "C"
