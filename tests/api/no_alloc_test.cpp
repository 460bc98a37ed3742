// No entry touches the heap once it has run once: a replay through the entry
// table (every fitting method, both fusion paths, both soft gyroscopes)
// counts the allocations anywhere in the process after the first
// magnetometer step, with the log silenced and with every line formatted
// into a sink that discards it. The counter replaces malloc and its
// relatives in this executable, so every shared object's calls bind to it.
#include <errno.h>
#include <stddef.h>
#include <stdlib.h>

#include <new>
#include <string>

#include <android/log.h>
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <math.h>
#include <unistd.h>

#include "cali/cali.h"
#include "qvn_host_layer.h"
#include "fusion/fusion.h"
#include "support/param_name.h"
#include "support/replay.h"

extern "C" {
void *__libc_malloc(size_t n);
void *__libc_calloc(size_t count, size_t n);
void *__libc_realloc(void *p, size_t n);
void *__libc_memalign(size_t alignment, size_t n);
void *memalign(size_t alignment, size_t n);
}

namespace {
bool g_counting = false;
long g_allocations = 0;
void Count() {
  if (g_counting) ++g_allocations;
}
}  // namespace

extern "C" {
void *malloc(size_t n) {
  Count();
  return __libc_malloc(n);
}
void *calloc(size_t count, size_t n) {
  Count();
  return __libc_calloc(count, n);
}
void *realloc(void *p, size_t n) {
  Count();
  return __libc_realloc(p, n);
}
void *memalign(size_t alignment, size_t n) {
  Count();
  return __libc_memalign(alignment, n);
}
void *aligned_alloc(size_t alignment, size_t n) {
  Count();
  return __libc_memalign(alignment, n);
}
int posix_memalign(void **out, size_t alignment, size_t n) {
  Count();
  *out = __libc_memalign(alignment, n);
  return *out != nullptr ? 0 : ENOMEM;
}
}

namespace {

long g_lines = 0;
void DiscardLine(const struct __android_logger_data *, const char *) { ++g_lines; }

struct Case {
  const char *name;
  int8_t hw_gyro;
  uint8_t soft_gyro;          // 0: the device profile's choice
  int interference_method;    // -1: none; else the method of a forced interference period
  bool log_sink;
};

class NoAllocation : public ::testing::TestWithParam<Case> {};

TEST_P(NoAllocation, ReplayAfterFirstStep) {
  const Case &c = GetParam();
  __android_log_set_logger(DiscardLine);
  __android_log_set_minimum_priority(c.log_sink ? ANDROID_LOG_VERBOSE : ANDROID_LOG_SILENT);
  qvn_test::MotionPlan plan;
  plan.seconds = 24.0;
  const std::vector<qvn_test::SimEvent> events = qvn_test::SimulateMotion(plan);

  int step = 0;
  int16_t checks_before = 0;
  uint64_t fused_before = 0;
  long lines_before = 0;
  qvn_test::ReplayThroughTable(events, c.hw_gyro, [&](const qvn_test::StepOutputs &) {
    if (step++ != 0) return;
    // The first step was the warm-up; the device profile has been applied.
    if (c.soft_gyro != 0) g_slect_swgyro_mode = c.soft_gyro;
    if (c.interference_method >= 0) {
      k7q_interference_mode = static_cast<uint16_t>(c.interference_method);
      interf_cnt_cnt = 30000;  // samples: the whole replay
    }
    checks_before = mag_cali_check_ctn;
    fused_before = timestamp_fuison;
    lines_before = g_lines;
    g_allocations = 0;
    g_counting = true;
  });
  g_counting = false;

  EXPECT_EQ(g_allocations, 0);
  // The replay did the work whose allocations are in question.
  if (c.interference_method == 1) {
    EXPECT_NE(qvn_cali_log[0], 0) << "no gyroscope-aided fit";
  } else {
    EXPECT_GT(mag_cali_check_ctn, checks_before) << "no fit validated";
  }
  if (c.hw_gyro == 0 || c.hw_gyro == 1) {
    EXPECT_GT(timestamp_fuison, fused_before);
  }
  if (c.log_sink) {
    EXPECT_GT(g_lines, lines_before + 1000);
  }
}

const Case kCases[] = {
    {"HardwareGyroscope", 1, 0, -1, false},
    {"SoftGyroscopeDebounced", 0, 0, -1, false},
    {"SoftGyroscopePlain", 0, 1, -1, false},
    {"OvalMethod", 2, 0, 0, false},
    {"GyroscopeAidedMethod", 2, 0, 1, false},
    {"EveryLineFormatted", 0, 1, -1, true},
    {"EveryLineFormattedOval", 1, 0, 0, true},
};

INSTANTIATE_TEST_SUITE_P(Replay, NoAllocation, ::testing::ValuesIn(kCases), qvn_test::ByName());

// The host layer on the sample path, a recovery (the whole core restored
// and initialised) and automatic saves of the calibration file included.
TEST(HostLayerNoAllocation, SamplesRecoveryAndSaves) {
  __android_log_set_logger(DiscardLine);
  __android_log_set_minimum_priority(ANDROID_LOG_SILENT);
  qvn_test::MotionPlan plan;
  plan.seconds = 24.0;
  const std::vector<qvn_test::SimEvent> events = qvn_test::SimulateMotion(plan);
  const std::string state = "/tmp/qvn_no_alloc_layer_" + std::to_string(getpid());
  QvnLayerConfig config;
  qvn_layer_default_config(&config);
  config.library_path = QVN_LIB_PATH;
  config.state_path = state.c_str();
  config.save_interval_s = 2.0;
  char why[128];
  ASSERT_EQ(qvn_layer_open(&config, why, sizeof why), 0) << why;
  float *weight = static_cast<float *>(dlsym(qvn_layer_library_handle(), "g_quat_weight_mag_normal"));
  ASSERT_NE(weight, nullptr);
  size_t i = 0;
  CaliResult r;
  for (; i < events.size() && events[i].sensor != qvn_test::Sensor::kMag; ++i) {
  }
  g_allocations = 0;
  g_counting = true;
  for (; i < events.size(); ++i) {
    const qvn_test::SimEvent &e = events[i];
    SensorEvent s = {e.t_ns, e.x, e.y, e.z, 3};
    if (e.t_ns == 15000000000) *weight = NAN;  // a host's bad write: one recovery
    if (e.sensor == qvn_test::Sensor::kAcc) qvn_layer_set_accel(&s);
    if (e.sensor == qvn_test::Sensor::kGyr) qvn_layer_set_gyro(&s);
    if (e.sensor == qvn_test::Sensor::kMag) qvn_layer_set_mag(&s, &r);
  }
  g_counting = false;
  QvnLayerCounters n;
  qvn_layer_counters(&n);
  qvn_layer_close();
  unlink(state.c_str());
  EXPECT_EQ(g_allocations, 0);
  EXPECT_GE(n.recoveries, 1u);
  EXPECT_GE(n.saves, 2u);
}

// The counter itself: it must see the allocations of this executable, of
// operator new and of another shared object (the log library's stderr
// logger allocates for each line).
TEST(AllocationCounter, SeesMallocNewAndSharedObjects) {
  g_allocations = 0;
  g_counting = true;
  void *volatile p = malloc(32);
  free(p);
  const long after_malloc = g_allocations;
  std::string *s = new std::string(64, 'x');
  delete s;
  const long after_new = g_allocations;
  __android_log_set_logger(__android_log_stderr_logger);
  __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
  __android_log_print(ANDROID_LOG_INFO, "no_alloc_test", "one line for the counter");
  g_counting = false;
  EXPECT_EQ(after_malloc, 1);
  EXPECT_GT(after_new, after_malloc);
  EXPECT_GT(g_allocations, after_new);
}

}  // namespace
