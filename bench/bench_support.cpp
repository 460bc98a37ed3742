#include "bench_support.h"

#include <android/log.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "api/api.h"
#include "cali/cali.h"
#include "platform/host/host_platform.h"

namespace {
bool g_read_excluded = false;
int32_t g_fixed_current = 0;
long g_reads_replaced = 0;
}  // namespace

extern "C" int32_t get_battery_current(void) {
  using Read = int32_t (*)(void);
  static const Read library_read = reinterpret_cast<Read>(dlsym(RTLD_NEXT, "get_battery_current"));
  if (g_read_excluded) {
    ++g_reads_replaced;
    return g_fixed_current;
  }
  return library_read();
}

namespace qvn_bench {
namespace {

constexpr double kStreamSeconds = 60.0;
constexpr double kMagHz = 50.0;
// What a charging phone's current_now holds; above the compensation
// threshold, so the correction runs too.
constexpr char kChargingCurrent[] = "1500000\n";

long g_log_lines = 0;

void DiscardLine(const struct __android_logger_data *, const char *) { ++g_log_lines; }

void WriteLine(const struct __android_logger_data *data, const char *message) {
  ++g_log_lines;
  __android_log_stderr_logger(data, message);
}

// Points stderr at /dev/null while the log writes (the lines would drown the
// benchmark's report otherwise), and back at the terminal otherwise.
void RouteLog(Log log) {
  static int saved_stderr = -1;
  if (log == Log::kWritten) {
    if (saved_stderr < 0) saved_stderr = dup(STDERR_FILENO);
    const int null_fd = open("/dev/null", O_WRONLY);
    dup2(null_fd, STDERR_FILENO);
    close(null_fd);
    __android_log_set_logger(WriteLine);
  } else {
    if (saved_stderr >= 0) dup2(saved_stderr, STDERR_FILENO);
    __android_log_set_logger(DiscardLine);
  }
}

struct Stream {
  std::vector<Event> events;
  size_t next = 0;
  int64_t shift = 0;  // added to every timestamp; grows by one span per lap
  int64_t span = 0;   // first to last timestamp plus one accelerometer period
  qvn_test::MotionPlan plan;
};

Stream &TheStream() {
  static Stream s = [] {
    Stream st;
    st.plan.seconds = kStreamSeconds;
    st.plan.mag_hz = kMagHz;
    for (const qvn_test::SimEvent &se : qvn_test::SimulateMotion(st.plan)) {
      Event ev;
      ev.sensor = se.sensor;
      ev.e.timestamp = se.t_ns;
      ev.e.x = se.x;
      ev.e.y = se.y;
      ev.e.z = se.z;
      ev.e.accuracy = 3;
      st.events.push_back(ev);
    }
    const int64_t period = static_cast<int64_t>(1e9 / st.plan.acc_hz);
    st.span = st.events.back().e.timestamp - st.events.front().e.timestamp + period;
    return st;
  }();
  return s;
}

// Two sysfs roots made once per process: one whose battery folder holds a
// current_now file, one with no power-supply files at all.
const std::string &SysfsRoot(CurrentFile which) {
  static std::string with_file, without_file;
  if (with_file.empty()) {
    char tmpl[] = "/tmp/qvn_bench_sysfs_XXXXXX";
    const std::string base = mkdtemp(tmpl);
    with_file = base + "/with";
    without_file = base + "/without";
    std::string dir = with_file;
    mkdir(dir.c_str(), 0700);
    for (const char *part : {"/sys", "/class", "/power_supply", "/battery"}) {
      dir += part;
      mkdir(dir.c_str(), 0700);
    }
    mkdir(without_file.c_str(), 0700);
    FILE *f = fopen((dir + "/current_now").c_str(), "w");
    fputs(kChargingCurrent, f);
    fclose(f);
    static const std::string cleanup = "rm -rf '" + base + "'";
    atexit([] { (void)system(cleanup.c_str()); });
  }
  return which == CurrentFile::kPresent ? with_file : without_file;
}

}  // namespace

void ResetLibrary(int8_t hw_gyro, Log log, CurrentFile current) {
  g_read_excluded = false;
  RouteLog(log);
  __android_log_set_minimum_priority(log == Log::kSilent ? ANDROID_LOG_SILENT
                                                         : ANDROID_LOG_VERBOSE);
  qvn_host_set_sysfs_root(SysfsRoot(current).c_str());
  // The device profile rewrites its own tunables at initialisation; the
  // batch and the interference period are not re-initialised, so they are
  // cleared here.
  interf_cnt_cnt = 0;
  clear_data_buffer();
  ChipInfo info = {0, 0, hw_gyro};
  MAG_LIB_API_INTERFACE.QVN_CaliInitLib(&info);
}

long TakeLogLines() {
  const long n = g_log_lines;
  g_log_lines = 0;
  return n;
}

void ExcludeBatteryRead() {
  g_fixed_current = get_battery_current();
  g_read_excluded = true;
  g_reads_replaced = 0;
  CaliResult out;
  const SensorEvent m = FeedUntilMag();
  MAG_LIB_API_INTERFACE.QVN_DoCaliAPI(&m, &out);
  if (g_reads_replaced != 1) {
    fprintf(stderr, "the library no longer reads the current through its export\n");
    abort();
  }
}

Event NextEvent() {
  Stream &s = TheStream();
  if (s.next == s.events.size()) {
    s.next = 0;
    s.shift += s.span;
  }
  Event ev = s.events[s.next++];
  ev.e.timestamp += s.shift;
  return ev;
}

const float *StreamOffset() { return TheStream().plan.offset; }

SensorEvent FeedUntilMag() {
  const QvnLibApiTable &api = MAG_LIB_API_INTERFACE;
  for (;;) {
    const Event ev = NextEvent();
    switch (ev.sensor) {
      case qvn_test::Sensor::kAcc:
        api.QVN_CaliApiSetAccelData(&ev.e);
        break;
      case qvn_test::Sensor::kGyr:
        api.QVN_CaliApiSetGyroData(&ev.e);
        break;
      case qvn_test::Sensor::kMag:
        return ev.e;
    }
  }
}

void Replay(double seconds) {
  const int samples = static_cast<int>(seconds * kMagHz);
  CaliResult out;
  for (int i = 0; i < samples; ++i) {
    const SensorEvent m = FeedUntilMag();
    MAG_LIB_API_INTERFACE.QVN_CaliApiSetMagData(&m);
    MAG_LIB_API_INTERFACE.QVN_DoCaliAPI(&m, &out);
  }
}

void SpreadBatch(int n, float *x, float *y, float *z) {
  std::vector<const SensorEvent *> mags;
  for (const Event &ev : TheStream().events) {
    if (ev.sensor == qvn_test::Sensor::kMag) mags.push_back(&ev.e);
  }
  // Skip the still start so that every sample comes from the turning phone.
  const size_t first = static_cast<size_t>(TheStream().plan.still_seconds * kMagHz) + 1;
  const size_t stride = (mags.size() - first) / static_cast<size_t>(n);
  for (int i = 0; i < n; ++i) {
    const SensorEvent *e = mags[first + stride * static_cast<size_t>(i)];
    x[i] = e->x;
    y[i] = e->y;
    z[i] = e->z;
  }
}

const std::vector<Operation> &AllOperations() {
  static const std::vector<Operation> all = [] {
    std::vector<Operation> ops = CaliOperations();
    for (const Operation &op : FusionOperations()) ops.push_back(op);
    for (const Operation &op : KernelOperations()) ops.push_back(op);
    for (const Operation &op : LogOperations()) ops.push_back(op);
    return ops;
  }();
  return all;
}

}  // namespace qvn_bench
