// libFuzzer harness with an output oracle for the host layer's recovery.
//
// Each input runs, from the core's load-time state (the layer is opened on a
// freshly restored core for every input):
//   1. a hostile phase: samples through the layer and straight into the bare
//      table (NaN, infinities, huge values, broken clocks), writes to any
//      element of any exported variable, re-initialisations with any hwGyro,
//      offsets through the layer and through the table, orbits that complete
//      calibrations;
//   2. the layer's recovery (qvn_layer_recover);
//   3. ten seconds of good data from a fixed scene through the layer.
// The oracle: every output of phase 3 is finite, and its outputs, offset
// included, are bit for bit those of a clean run of the same scene from the
// same kept calibration (computed once per kept calibration, from a fresh
// restore). Any difference is state that survived the recovery.
//
// Input layout: header byte (bit 0: hwGyro 1 or 0; bit 1: NFC variant), then
// operations (opcode byte modulo kOpCount, operands) until the input ends.
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <android/log.h>

#include <cmath>
#include <map>
#include <tuple>

#include "all_variables.h"
#include "fuzz_input.h"
#include "orbit.h"
#include "qvn_host_layer.h"
#include "qvnlib/qvnlib.h"
#include "sample_clock.h"

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace {

enum Op : uint8_t {
  kLayerAcc, kLayerGyro, kLayerMag, kBareAcc, kBareGyro, kBareMag, kBareInit, kLayerOffset,
  kBareOffset, kVariable, kOrbit, kLayerRecover, kOpCount
};

constexpr int64_t kClockStart = 1000000000;
constexpr int kSampleBudget = 200;
constexpr int kSceneSteps = 100;            // 10 s at 10 Hz
constexpr int64_t kSceneStep = 100000000;   // ns
constexpr int64_t kSceneStart = 3000000000;

void *g_core = nullptr;  // held, so that closing the layer never unloads the core
const QvnLibApiTable *g_api = nullptr;
int (*g_property_set)(const char *, const char *) = nullptr;
int64_t g_now = kClockStart;
int g_budget = 0;

void *Resolve(const char *name) { return dlsym(g_core, name); }

SensorEvent Sample(qvn_fuzz::Reader &r) { return qvn_fuzz::Sample(r, &g_now); }

// The fixed scene: a turning phone in a 45 uT field with a hard-iron offset.
struct SceneResult {
  uint64_t digest = 0;
  float offset[3] = {0, 0, 0};
  bool finite = true;
};

void Fold(uint64_t *h, const void *p, size_t n) {
  const unsigned char *b = static_cast<const unsigned char *>(p);
  for (size_t i = 0; i < n; ++i) *h = (*h ^ b[i]) * 1099511628211ull;
}

bool Finite(const float *v, int n) {
  for (int i = 0; i < n; ++i) {
    if (!std::isfinite(v[i])) return false;
  }
  return true;
}

SceneResult RunScene() {
  SceneResult s;
  s.digest = 1469598103934665603ull;
  qvn_fuzz::OrbitParams p;
  p.samples = kSceneSteps;
  p.step_ns = kSceneStep;
  p.radius = 45.0;
  p.centre[0] = 31.0;
  p.centre[1] = -17.0;
  p.centre[2] = 42.0;
  p.yaw_turns = 3;
  p.pitch_turns = 2;
  p.noise = 0.3;
  p.seed = 7;
  for (int i = 0; i < kSceneSteps; ++i) {
    qvn_fuzz::OrbitSample o = qvn_fuzz::OrbitAt(p, i);
    int64_t t = kSceneStart + i * kSceneStep;
    SensorEvent acc = {t, o.acc[0], o.acc[1], o.acc[2], 3};
    SensorEvent mag = {t + 1000, o.mag[0], o.mag[1], o.mag[2], 3};
    SensorEvent gyr = {t + 2000, o.gyr[0], o.gyr[1], o.gyr[2], 3};
    CaliResult r;
    memset(&r, 0, sizeof r);
    qvn_layer_set_accel(&acc);
    qvn_layer_set_mag(&mag, &r);
    qvn_layer_set_gyro(&gyr);
    s.finite = s.finite && Finite(&r.x, 6);
    Fold(&s.digest, &r, 33);
    for (int k = 0; k < QVN_LAYER_OUTPUTS; ++k) {
      FusionEvent f;
      qvn_layer_get(static_cast<QvnLayerOutput>(k), &f);
      s.finite = s.finite && Finite(f.values, 4);
      Fold(&s.digest, &f, 33);
    }
  }
  qvn_layer_get_offset(s.offset);
  return s;
}

void Open(int8_t hw_gyro) {
  QvnLayerConfig c;
  qvn_layer_default_config(&c);
  c.library_path = QVN_FUZZ_CORE;
  c.chip.hwGyro = hw_gyro;
  c.save_interval_s = -1;
  char why[256];
  if (qvn_layer_open(&c, why, sizeof why) != 0) {
    fprintf(stderr, "recovery_fuzzer: %s\n", why);
    abort();
  }
}

// Clean results per (hwGyro, NFC, kept offset bits, kept accuracy).
using Key = std::tuple<int, int, uint32_t, uint32_t, uint32_t, int>;
std::map<Key, SceneResult> g_clean;

Key KeyOf(int hw_gyro, int nfc, const float o[3], int16_t accuracy) {
  uint32_t b[3];
  memcpy(b, o, sizeof b);
  return Key(hw_gyro, nfc, b[0], b[1], b[2], accuracy);
}

void Environment(bool nfc) { g_property_set("ro.boot.hwname", nfc ? "vask" : nullptr); }

const SceneResult &Clean(const Key &key, const float offset[3], int16_t accuracy, bool has) {
  auto it = g_clean.find(key);
  if (it != g_clean.end()) return it->second;
  if (g_clean.size() > 4096) g_clean.clear();
  // A fresh core: restored by the close, captured again by the open.
  qvn_layer_close();
  Environment(std::get<1>(key) != 0);
  Open(static_cast<int8_t>(std::get<0>(key)));
  if (has) qvn_layer_set_kept_calibration(offset, accuracy);
  qvn_layer_recover();
  return g_clean[key] = RunScene();
}

void DiscardLine(const struct __android_logger_data *, const char *) {}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  __android_log_set_logger(DiscardLine);
  __android_log_set_minimum_priority(ANDROID_LOG_SILENT);
  g_core = dlopen(QVN_FUZZ_CORE, RTLD_NOW | RTLD_LOCAL);
  if (g_core == nullptr) {
    fprintf(stderr, "recovery_fuzzer: %s\n", dlerror());
    abort();
  }
  g_api = static_cast<const QvnLibApiTable *>(dlsym(g_core, QVNLIB_TABLE_SYMBOL));
  g_property_set = reinterpret_cast<int (*)(const char *, const char *)>(
      dlsym(g_core, "qvn_host_property_set"));
  auto sysfs = reinterpret_cast<void (*)(const char *)>(dlsym(g_core, "qvn_host_set_sysfs_root"));
  if (g_api == nullptr || g_property_set == nullptr || sysfs == nullptr) abort();
  sysfs("/nonexistent-power-supply");
  Open(1);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  qvn_fuzz::Reader r(data, size);
  const uint8_t header = r.U8();
  const int8_t hw_gyro = (header & 1u) ? 1 : 0;
  const bool nfc = (header & 2u) != 0;
  // Every input from the load-time state.
  qvn_layer_close();
  Environment(nfc);
  Open(hw_gyro);
  g_now = kClockStart;
  g_budget = kSampleBudget;

  while (!r.empty() && g_budget > 0) {
    const uint8_t op = static_cast<uint8_t>(r.U8() % kOpCount);
    CaliResult out;
    switch (op) {
      case kLayerAcc: { SensorEvent e = Sample(r); qvn_layer_set_accel(&e); --g_budget; break; }
      case kLayerGyro: { SensorEvent e = Sample(r); qvn_layer_set_gyro(&e); --g_budget; break; }
      case kLayerMag: { SensorEvent e = Sample(r); qvn_layer_set_mag(&e, &out); --g_budget; break; }
      case kBareAcc: { SensorEvent e = Sample(r); g_api->QVN_CaliApiSetAccelData(&e); --g_budget; break; }
      case kBareGyro: { SensorEvent e = Sample(r); g_api->QVN_CaliApiSetGyroData(&e); --g_budget; break; }
      case kBareMag: {
        SensorEvent e = Sample(r);
        g_api->QVN_CaliApiSetMagData(&e);
        g_api->QVN_DoCaliAPI(&e, &out);
        --g_budget;
        break;
      }
      case kBareInit: {
        ChipInfo c = {0, 0, static_cast<int8_t>(r.U8())};
        g_api->QVN_CaliInitLib(&c);
        break;
      }
      case kLayerOffset: {
        const float o[3] = {r.Float(), r.Float(), r.Float()};
        qvn_layer_set_offset(o);
        break;
      }
      case kBareOffset: {
        const float o[3] = {r.Float(), r.Float(), r.Float()};
        g_api->QVN_CaliApiSetOffset(o);
        break;
      }
      case kVariable: qvn_fuzz::WriteElement(r.U16(), r, Resolve); break;
      case kOrbit: {
        qvn_fuzz::OrbitParams p = qvn_fuzz::ReadOrbit(r);
        const int n = p.samples < g_budget ? p.samples : g_budget;
        g_budget -= n;
        for (int i = 0; i < n; ++i) {
          qvn_fuzz::OrbitSample s = qvn_fuzz::OrbitAt(p, i);
          g_now = static_cast<int64_t>(static_cast<uint64_t>(g_now) + p.step_ns);
          SensorEvent a = {g_now, s.acc[0], s.acc[1], s.acc[2], 3};
          SensorEvent m = {g_now, s.mag[0], s.mag[1], s.mag[2], 3};
          SensorEvent g = {g_now, s.gyr[0], s.gyr[1], s.gyr[2], 3};
          qvn_layer_set_accel(&a);
          qvn_layer_set_mag(&m, &out);
          qvn_layer_set_gyro(&g);
        }
        break;
      }
      case kLayerRecover: qvn_layer_recover(); break;
      default: break;
    }
  }

  // The hostile phase may have written the property store; the clean run
  // and the recovery see the input's own variant.
  Environment(nfc);
  float kept[3];
  int16_t accuracy = 0;
  const bool has = qvn_layer_get_kept_calibration(kept, &accuracy) == 1;
  qvn_layer_recover();
  const SceneResult got = RunScene();
  if (!got.finite) {
    fprintf(stderr, "recovery_fuzzer: an output of the good scene is not finite\n");
    abort();
  }
  const SceneResult &clean = Clean(KeyOf(hw_gyro, nfc, kept, accuracy), kept, accuracy, has);
  if (got.digest != clean.digest || memcmp(got.offset, clean.offset, sizeof got.offset) != 0) {
    fprintf(stderr,
            "recovery_fuzzer: after the recovery the scene gives other bits than a clean run "
            "(offset %.9g %.9g %.9g, clean %.9g %.9g %.9g)\n",
            static_cast<double>(got.offset[0]), static_cast<double>(got.offset[1]),
            static_cast<double>(got.offset[2]), static_cast<double>(clean.offset[0]),
            static_cast<double>(clean.offset[1]), static_cast<double>(clean.offset[2]));
    abort();
  }
  return 0;
}
