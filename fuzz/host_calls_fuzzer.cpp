// libFuzzer harness: arbitrary sequences of host calls through the entry
// table, interleaved with writes to exported tunables.
//
// Input layout: one header byte (bits 0-1 pick hwGyro 0, 1, 2 or -1 for the
// first init; bit 7 skips that init), then operations until the input ends.
// Each operation is an opcode byte (modulo kOpCount) followed by its operands,
// decoded with qvn_fuzz::Reader (floats use its tagged encoding, so NaN,
// infinities, denormals and huge values all occur). Timestamps come from one
// clock that a per-sample code moves forward, keeps, moves backward, jumps or
// sets to any int64.
//
// kTunable writes one of a curated table of tunables and working variables;
// kAnyElement writes any element of any exported variable.
//
// Every input starts from the same tunables (snapshot taken at start-up) and,
// unless the header says otherwise, from a fresh QVN_CaliInitLib. Working
// state that initialisation does not touch persists between inputs, which is
// harmless for finding crashes.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <android/log.h>

#include <dlfcn.h>

#include "all_variables.h"
#include "fuzz_input.h"
#include "orbit.h"
#include "platform/host/host_platform.h"
#include "qvnlib/qvnlib.h"
#include "sample_clock.h"
#include "tunables.h"

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace {

enum Op : uint8_t {
  kInit, kAccel, kGyro, kMag, kDoCali, kMagPair, kGetter, kGetOffset, kSetOffset, kEnable,
  kTunable, kLog, kOrbit, kFullStep, kAnyElement, kOpCount
};

constexpr int64_t kClockStart = 1000000000;  // ns; the first second is spent at load
constexpr int kSampleBudget = 400;           // simulated samples per input (keeps runs fast)

int64_t g_now = kClockStart;
int g_budget = 0;
char g_sysfs_roots[4][64];

// A sample with an accuracy byte of its own after the values.
SensorEvent Sample(qvn_fuzz::Reader &r) {
  SensorEvent e = qvn_fuzz::Sample(r, &g_now);
  e.accuracy = static_cast<int8_t>(r.U8());
  return e;
}

// Chooses the device variant and the power-supply files for the next init.
void Environment(uint8_t variant) {
  switch (variant & 3u) {
    case 0: qvn_host_property_set("ro.boot.hwname", nullptr); break;
    case 1:
      qvn_host_property_set("ro.boot.hwname",
                            "vask_a_value_longer_than_the_platform_allows_for_one_property_"
                            "so_that_it_is_cut_at_ninety_one_characters");
      break;
    case 2: qvn_host_property_set("ro.boot.hwname", "trel"); break;
    default: break;
  }
  qvn_host_property_set_unreadable((variant & 3u) == 3);
  qvn_host_set_sysfs_root(g_sysfs_roots[(variant >> 2) & 3u]);
}

void Init(int32_t layout, int32_t deviceid, int8_t hw_gyro) {
  ChipInfo info = {layout, deviceid, hw_gyro};
  MAG_LIB_API_INTERFACE.QVN_CaliInitLib(&info);
}

void MagPair(const SensorEvent &e) {
  CaliResult out;
  MAG_LIB_API_INTERFACE.QVN_CaliApiSetMagData(&e);
  MAG_LIB_API_INTERFACE.QVN_DoCaliAPI(&e, &out);
}

void Getter(uint8_t which) {
  const QvnFusionGetFn getters[] = {
      MAG_LIB_API_INTERFACE.QVN_FusionGetGravity,
      MAG_LIB_API_INTERFACE.QVN_FusionGetRotationVector,
      MAG_LIB_API_INTERFACE.QVN_FusionGetOrientation,
      MAG_LIB_API_INTERFACE.QVN_FusionGetLinearaccel,
      MAG_LIB_API_INTERFACE.QVN_FusionGetGameRotationVector,
      MAG_LIB_API_INTERFACE.QVN_FusionGetGeoMagnetic,
      MAG_LIB_API_INTERFACE.QVN_FusionGetVirtualGyro,
  };
  FusionEvent out;
  if ((which & 7u) < 7u) {
    getters[which & 7u](&out);
    return;
  }
  for (QvnFusionGetFn get : getters) get(&out);
}

// A stretch of the phone turning through every attitude, at an odd offset
// and radius: the only practical way for random inputs to fill a batch.
void Orbit(qvn_fuzz::Reader &r) {
  qvn_fuzz::OrbitParams p = qvn_fuzz::ReadOrbit(r);
  const int n = p.samples < g_budget ? p.samples : g_budget;
  g_budget -= n;
  for (int i = 0; i < n; ++i) {
    qvn_fuzz::OrbitSample s = qvn_fuzz::OrbitAt(p, i);
    g_now = static_cast<int64_t>(static_cast<uint64_t>(g_now) + p.step_ns);
    SensorEvent acc = {g_now, s.acc[0], s.acc[1], s.acc[2], 3};
    SensorEvent gyr = {g_now, s.gyr[0], s.gyr[1], s.gyr[2], 3};
    SensorEvent mag = {g_now, s.mag[0], s.mag[1], s.mag[2], 3};
    MAG_LIB_API_INTERFACE.QVN_CaliApiSetAccelData(&acc);
    MAG_LIB_API_INTERFACE.QVN_CaliApiSetGyroData(&gyr);
    MagPair(mag);
  }
}

// The harness is linked with its symbols exported, so the library's names
// resolve in its own image.
void *Resolve(const char *name) { return dlsym(RTLD_DEFAULT, name); }

void DiscardLine(const struct __android_logger_data *, const char *) {}

// Folders of one power-supply tree, parents first.
constexpr const char *kSysfsDirs[] = {
    "", "/sys", "/sys/class", "/sys/class/power_supply", "/sys/class/power_supply/battery",
    "/sys/class/power_supply/usb", "/sys/class/power_supply/ac"};
constexpr const char *kSysfsFiles[] = {"battery/current_now", "usb/charge_type", "usb/online",
                                       "ac/online"};
char g_sysfs_base[32];

void RemoveSysfs() {
  char path[160];
  for (const char *root : g_sysfs_roots) {
    for (const char *f : kSysfsFiles) {
      snprintf(path, sizeof path, "%s/sys/class/power_supply/%s", root, f);
      unlink(path);
    }
    for (int d = static_cast<int>(sizeof kSysfsDirs / sizeof kSysfsDirs[0]) - 1; d >= 0; --d) {
      snprintf(path, sizeof path, "%s%s", root, kSysfsDirs[d]);
      rmdir(path);
    }
  }
  rmdir(g_sysfs_base);
}

void MakeDir(const char *path) {
  if (mkdir(path, 0700) != 0 && errno != EEXIST) abort();
}

// Four power-supply folders: charging at 1.5 A, missing files, text without
// digits, and the largest int32 current.
void MakeSysfs() {
  const char *currents[] = {"1500000\n", nullptr, "not a number", "2147483647"};
  snprintf(g_sysfs_base, sizeof g_sysfs_base, "/tmp/qvn_fuzz_sysfs_XXXXXX");
  if (mkdtemp(g_sysfs_base) == nullptr) abort();
  for (int i = 0; i < 4; ++i) {
    char *root = g_sysfs_roots[i];
    snprintf(root, sizeof g_sysfs_roots[i], "%s/%d", g_sysfs_base, i);
    if (currents[i] == nullptr) continue;
    char path[160];
    for (const char *d : kSysfsDirs) {
      snprintf(path, sizeof path, "%s%s", root, d);
      MakeDir(path);
    }
    const char *contents[][2] = {{"battery/current_now", currents[i]},
                                 {"usb/charge_type", "3\n"},
                                 {"usb/online", "1"},
                                 {"ac/online", "0"}};
    for (const auto &c : contents) {
      snprintf(path, sizeof path, "%s/sys/class/power_supply/%s", root, c[0]);
      FILE *f = fopen(path, "w");
      if (f == nullptr) abort();
      fputs(c[1], f);
      fclose(f);
    }
  }
  atexit(RemoveSysfs);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  __android_log_set_logger(DiscardLine);
  __android_log_set_minimum_priority(ANDROID_LOG_SILENT);
  MakeSysfs();
  qvn_fuzz::SnapshotTunables();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  qvn_fuzz::Reader r(data, size);
  const uint8_t header = r.U8();
  const int8_t hw_gyros[] = {0, 1, 2, -1};
  qvn_fuzz::RestoreTunables();
  __android_log_set_minimum_priority(ANDROID_LOG_SILENT);
  // No power-supply files unless an init asks for them: one failed open per
  // sample is the cheapest path, and the charging path has its own variants.
  Environment(4);
  g_now = kClockStart;
  g_budget = kSampleBudget;
  if ((header & 0x80u) == 0) Init(0, 0, hw_gyros[header & 3u]);

  const QvnLibApiTable &api = MAG_LIB_API_INTERFACE;
  while (!r.empty()) {
    const uint8_t op = static_cast<uint8_t>(r.U8() % kOpCount);
    switch (op) {
      case kInit: {
        const int32_t layout = r.I32();
        const int32_t deviceid = r.I32();
        const int8_t hw_gyro = static_cast<int8_t>(r.U8());
        Environment(r.U8());
        Init(layout, deviceid, hw_gyro);
        break;
      }
      case kAccel: { SensorEvent e = Sample(r); api.QVN_CaliApiSetAccelData(&e); break; }
      case kGyro: { SensorEvent e = Sample(r); api.QVN_CaliApiSetGyroData(&e); break; }
      case kMag: { SensorEvent e = Sample(r); api.QVN_CaliApiSetMagData(&e); break; }
      case kDoCali: {
        SensorEvent e = Sample(r);
        CaliResult out;
        api.QVN_DoCaliAPI(&e, &out);
        break;
      }
      case kMagPair: MagPair(Sample(r)); break;
      case kGetter: Getter(r.U8()); break;
      case kGetOffset: { float o[3]; api.QVN_CaliApiGetOffset(o); break; }
      case kSetOffset: {
        const float o[3] = {r.Float(), r.Float(), r.Float()};
        api.QVN_CaliApiSetOffset(o);
        break;
      }
      case kEnable: api.QVN_FusionEnableLib(r.I32()); break;
      case kTunable: qvn_fuzz::WriteTunable(r.U8(), r); break;
      case kAnyElement: qvn_fuzz::WriteElement(r.U16(), r, Resolve); break;
      case kLog:
        // Formatting runs only for loggable lines; the sink drops them.
        __android_log_set_minimum_priority((r.U8() & 1u) ? ANDROID_LOG_VERBOSE
                                                         : ANDROID_LOG_SILENT);
        break;
      case kOrbit: Orbit(r); break;
      case kFullStep: {
        SensorEvent a = Sample(r), g = Sample(r), m = Sample(r);
        api.QVN_CaliApiSetAccelData(&a);
        api.QVN_CaliApiSetGyroData(&g);
        MagPair(m);
        break;
      }
      default: break;
    }
  }
  return 0;
}
