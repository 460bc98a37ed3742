// Bit-exactness check for performance work: prints one 64-bit digest per
// scenario of every output bit and every log line (priority and text) that
// the library produces, so that the digests of a build before a change and
// after it can be diffed. A change that only makes the library faster leaves
// every line identical.
//
//   qvn_bench_digest > before.txt   (old build)
//   qvn_bench_digest > after.txt    (new build); diff before.txt after.txt
//
// Each scenario runs in a child process, so each starts from the load-time
// state. Replay scenarios cover both fusion paths, both soft gyroscopes, the
// three fitting methods, a disturbed stretch and a charging current, with the
// log at VERBOSE. Kernel scenarios feed the fits, the inversion, the filters
// and the distance test with random inputs and odd thresholds.
#include <android/log.h>
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <vector>

#include "api/api.h"
#include "bench_support.h"
#include "cali/cali.h"
#include "fusion/fusion.h"
#include "math/math.h"
#include "support/synthetic.h"

namespace {

class Fnv {
 public:
  void Bytes(const void *p, size_t n) {
    const unsigned char *b = static_cast<const unsigned char *>(p);
    for (size_t i = 0; i < n; ++i) h_ = (h_ ^ b[i]) * 0x100000001b3ull;
  }
  template <typename T>
  void Value(const T &v) {
    Bytes(&v, sizeof v);
  }
  uint64_t value() const { return h_; }

 private:
  uint64_t h_ = 0xcbf29ce484222325ull;
};

Fnv g_digest;
long g_lines = 0;

void HashLine(const struct __android_logger_data *data, const char *message) {
  g_digest.Value(data->priority);
  g_digest.Bytes(message, strlen(message) + 1);
  ++g_lines;
}

// ---- replays through the entry table ----
struct Replay {
  const char *name;
  int8_t hw_gyro;
  uint8_t soft_gyro;       // 0: the profile's
  int method;              // -1: normal operation; else forced interference method
  bool charging;
  bool disturbed;          // a 600 uT step for one second at 12 s
};

void HashOutputs(const CaliResult &c) {
  g_digest.Bytes(&c, 33);  // the tail padding is never written
  const QvnLibApiTable &api = MAG_LIB_API_INTERFACE;
  const QvnFusionGetFn getters[7] = {
      api.QVN_FusionGetGravity,        api.QVN_FusionGetRotationVector,
      api.QVN_FusionGetOrientation,    api.QVN_FusionGetLinearaccel,
      api.QVN_FusionGetGameRotationVector, api.QVN_FusionGetGeoMagnetic,
      api.QVN_FusionGetVirtualGyro};
  for (QvnFusionGetFn get : getters) {
    FusionEvent e;
    memset(&e, 0, sizeof e);
    get(&e);
    g_digest.Bytes(&e, 33);
  }
  g_digest.Value(sfi_array);
  g_digest.Value(Qfusion);
  g_digest.Value(cali_radius);
  g_digest.Value(dsc_data_num);
  g_digest.Value(mag_quad_accuracy);
  g_digest.Value(qvn_cali_log);
  g_digest.Value(qvn_debug_log);
  g_digest.Value(dsc_pre_mag);
  g_digest.Value(g_acc_data);
  g_digest.Value(g_gyr_data);
}

void RunReplay(const Replay &r) {
  using qvn_bench::CurrentFile;
  qvn_bench::ResetLibrary(r.hw_gyro, qvn_bench::Log::kDropped,
                          r.charging ? CurrentFile::kPresent : CurrentFile::kAbsent);
  __android_log_set_logger(HashLine);
  if (r.soft_gyro != 0) g_slect_swgyro_mode = r.soft_gyro;
  const QvnLibApiTable &api = MAG_LIB_API_INTERFACE;
  for (int step = 0; step < 2500; ++step) {  // 50 s of magnetometer samples
    SensorEvent m = qvn_bench::FeedUntilMag();
    if (r.disturbed && step >= 600 && step < 650) m.x += 600.0f;
    if (step == 100 && r.method >= 0) {
      k7q_interference_mode = static_cast<uint16_t>(r.method);
      interf_cnt_cnt = 30000;
    }
    CaliResult out;
    memset(&out, 0, sizeof out);
    api.QVN_CaliApiSetMagData(&m);
    api.QVN_DoCaliAPI(&m, &out);
    HashOutputs(out);
  }
}

// ---- kernels on random inputs ----
void RunKernels() {
  __android_log_set_logger(HashLine);
  __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
  qvn_test::Lcg rng(7);
  float x[QVN_BATCH_CAPACITY], y[QVN_BATCH_CAPACITY], z[QVN_BATCH_CAPACITY];
  for (int round = 0; round < 400; ++round) {
    const int n = 1 + static_cast<int>(rng.Next() % QVN_BATCH_CAPACITY);
    const float cx = 60.0f * rng.Uniform(), cy = 60.0f * rng.Uniform(), cz = 60.0f * rng.Uniform();
    const float ax = 45.0f + 10.0f * rng.Uniform(), ay = 45.0f + 10.0f * rng.Uniform();
    const float az = 45.0f + 10.0f * rng.Uniform(), noise = (round % 4) * 0.5f;
    const std::vector<qvn_test::Point3> pts = qvn_test::FibonacciSphere(n);
    for (int i = 0; i < n; ++i) {
      x[i] = cx + ax * pts[static_cast<size_t>(i)].x + noise * rng.Uniform();
      y[i] = cy + ay * pts[static_cast<size_t>(i)].y + noise * rng.Uniform();
      z[i] = cz + az * pts[static_cast<size_t>(i)].z + noise * rng.Uniform();
    }
    float out[16] = {0};
    g_digest.Value(calculate_sphere_offset(x, y, z, static_cast<int16_t>(n), out, out + 3));
    g_digest.Value(DM);
    g_digest.Value(invDM);
    g_digest.Value(calculate_magnetic_sfi_hdi(x, y, z, static_cast<uint16_t>(n), out + 4, out + 7,
                                              out + 3));
    g_digest.Value(out);
    g_digest.Value(DM);
    g_digest.Value(invDM);
    float inv[81];
    for (int order = 2; order <= 9; ++order) {
      memset(inv, 0, sizeof inv);
      g_digest.Value(inverse_matrix(DM, inv, static_cast<uint8_t>(order)));
      g_digest.Value(inv);
    }
    // Distance test with ordinary and odd spacings.
    const float spacings[] = {0.0f, -1.0f, 1e-30f, 1e-20f, 0.85f, 2.1213f, 30.0f, 1e20f,
                              __builtin_inff(), __builtin_nanf("")};
    for (int i = 0; i < n; ++i) {
      dsc_data_mag[0][i] = x[i];
      dsc_data_mag[1][i] = y[i];
      dsc_data_mag[2][i] = z[i];
    }
    dsc_data_num = static_cast<int16_t>(n);
    dsc_mag_distance = spacings[round % 10];
    for (int probe = 0; probe < 20; ++probe) {
      const float p[3] = {x[probe % n] + rng.Uniform() * 5.0f, y[probe % n], z[probe % n]};
      g_digest.Value(mag_is_effective(p));
      g_digest.Value(dsc_pre_mag);
    }
    // Input filters with random windows, refilled from a reset.
    const float acc_win[2] = {1.0f + static_cast<float>(rng.Next() % 40),
                              1.0f + static_cast<float>(rng.Next() % 32)};
    const float mag_win[2] = {1.0f + static_cast<float>(rng.Next() % 32),
                              1.0f + static_cast<float>(rng.Next() % 32)};
    set_softgyro_filter(1, acc_win);
    set_softgyro_filter(2, mag_win);
    qvn_softgyro_initialize();
    for (int i = 0; i < 60; ++i) {
      const float v[3] = {x[i % n], (i % 7 == 0) ? 0.0f : y[i % n], z[(i * 3) % n]};
      float o[3] = {0, 0, 0};
      g_digest.Value(acc_data_filter_func(v, o, 1));
      g_digest.Value(o);
      g_digest.Value(mag_data_filter_func(v, o, 1));
      g_digest.Value(o);
    }
  }
}

}  // namespace

int main() {
  const Replay replays[] = {
      {"hw_gyro", 1, 0, -1, true, false},
      {"hw_gyro_soft1_disturbed", 1, 1, -1, false, true},
      {"no_gyro_soft2", 0, 0, -1, true, false},
      {"no_gyro_soft1_disturbed", 0, 1, -1, false, true},
      {"no_gyro_oval", 0, 1, 0, true, false},
      {"hw_gyro_gyro_method", 1, 2, 1, false, false},
      {"no_fusion_ball_disturbed", 2, 0, -1, true, true},
  };
  const size_t count = sizeof replays / sizeof replays[0];
  for (size_t i = 0; i <= count; ++i) {
    fflush(stdout);
    const pid_t pid = fork();
    if (pid == 0) {
      const char *name = "kernels";
      if (i < count) {
        RunReplay(replays[i]);
        name = replays[i].name;
      } else {
        RunKernels();
      }
      printf("%-26s %016llx lines=%ld validations=%d sfi_update=%d\n", name,
             static_cast<unsigned long long>(g_digest.value()), g_lines, mag_cali_check_ctn,
             sfi_update);
      fflush(stdout);
      _exit(0);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
      printf("scenario %zu failed\n", i);
      return 1;
    }
  }
  return 0;
}
