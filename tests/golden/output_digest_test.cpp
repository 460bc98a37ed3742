// Bit-exact output digest of a simulated recording, replayed through the
// entry table. Every output bit (each CaliResult, all seven FusionEvents and
// the offset after every magnetometer sample) is folded into a 64-bit FNV-1a
// digest and compared with the value committed from an x86_64 run, so a
// build for another processor that rounds differently (a fused multiply-add,
// char signedness, a libm routine) shows up here.
//
// The recording is generated with float additions, multiplications and
// square roots only (no libm), so the stimulus itself is identical on every
// IEEE-754 target.
//
// Expected values live in tests/golden/output_digests.txt, one "<case> <hex>"
// per line. After an intended numeric change, regenerate them on x86_64 with
//   QVN_UPDATE_DIGESTS=1 ctest --test-dir <build> -R OutputDigest -j1
// and review the diff.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <cmath>
#include <fstream>
#include <map>
#include <string>

#include <android/log.h>
#include <gtest/gtest.h>

#include "platform/host/host_platform.h"
#include "qvnlib/qvnlib.h"
#include "support/fnv1a.h"

namespace {

constexpr int kSteps = 1800;                // magnetometer samples, 36 s at 50 Hz
constexpr int64_t kStart = 1000000000;      // ns
constexpr int64_t kPeriod = 20000000;       // ns, 50 Hz
constexpr float kDt = 0.02f;                // s
constexpr float kGravity = 9.81f;           // m/s^2
constexpr float kEarthField[3] = {0.0f, 22.0f, -40.0f};  // uT, about 45.6 uT
constexpr float kHardIron[3] = {18.5f, -31.25f, 42.0f};  // uT
constexpr float kGyroBias[3] = {0.012f, -0.02f, 0.006f};  // rad/s
constexpr float kMagNoise = 0.3f;           // uT peak
constexpr float kDisturbance = 520.0f;      // uT, beyond the interference threshold
const char kDigestFile[] = QVN_SOURCE_DIR "/tests/golden/output_digests.txt";

// Rate segments of 150 samples (3 s): still, tumbling through all attitudes,
// a disturbed stretch, more tumbling, still again.
constexpr float kRates[12][3] = {
    {0.0f, 0.0f, 0.0f},   {1.1f, 0.7f, -0.9f},  {-0.6f, 1.3f, 0.4f},  {0.9f, -0.8f, 1.2f},
    {0.3f, 0.2f, -1.5f},  {-1.2f, -0.5f, 0.6f}, {0.0f, 0.0f, 0.0f},   {0.7f, 1.0f, 0.8f},
    {-0.9f, 0.4f, -1.1f}, {1.4f, -0.3f, 0.2f},  {0.0f, 0.0f, 0.0f},   {0.0f, 0.0f, 0.0f}};
constexpr int kSegment = 150;
constexpr int kDisturbedFrom = 900, kDisturbedTo = 960;

// Body-frame readings of the simulated phone; attitude integrated with float
// arithmetic only.
class Phone {
 public:
  void Advance(const float w[3]) {
    const float h[3] = {w[0] * kDt * 0.5f, w[1] * kDt * 0.5f, w[2] * kDt * 0.5f};
    const float n[4] = {q_[0] - q_[1] * h[0] - q_[2] * h[1] - q_[3] * h[2],
                        q_[1] + q_[0] * h[0] + q_[2] * h[2] - q_[3] * h[1],
                        q_[2] + q_[0] * h[1] + q_[3] * h[0] - q_[1] * h[2],
                        q_[3] + q_[0] * h[2] + q_[1] * h[1] - q_[2] * h[0]};
    const float norm = sqrtf(n[0] * n[0] + n[1] * n[1] + n[2] * n[2] + n[3] * n[3]);
    for (int i = 0; i < 4; ++i) q_[i] = n[i] / norm;
  }
  // R^T v with R the attitude (body to earth).
  void ToBody(const float v[3], float out[3]) const {
    const float w = q_[0], x = q_[1], y = q_[2], z = q_[3];
    const float r[3][3] = {{1 - 2 * (y * y + z * z), 2 * (x * y - w * z), 2 * (x * z + w * y)},
                           {2 * (x * y + w * z), 1 - 2 * (x * x + z * z), 2 * (y * z - w * x)},
                           {2 * (x * z - w * y), 2 * (y * z + w * x), 1 - 2 * (x * x + y * y)}};
    for (int k = 0; k < 3; ++k) out[k] = r[0][k] * v[0] + r[1][k] * v[1] + r[2][k] * v[2];
  }

 private:
  float q_[4] = {1.0f, 0.0f, 0.0f, 0.0f};
};

void DiscardLine(const struct __android_logger_data *, const char *) {}

// Record kinds, in the order they are hashed after each sample.
constexpr const char *kRecordNames[9] = {"CaliResult",  "Gravity",        "RotationVector",
                                         "Orientation", "Linearaccel",    "GameRotationVector",
                                         "GeoMagnetic", "VirtualGyro",    "offset"};

struct Replay {
  uint64_t digest;
  int non_finite[9];  // values that are NaN or infinite, per record kind
  int bad_records;    // accuracy out of 0..3 or a reserved byte set
};

std::string NonFinite(const Replay &r) {
  std::string s;
  for (int i = 0; i < 9; ++i) {
    if (r.non_finite[i] == 0) continue;
    s += std::string(kRecordNames[i]) + ":" + std::to_string(r.non_finite[i]) + " ";
  }
  return s;
}

void HashFusion(qvn_test::Fnv1a &h, Replay &r, int kind, const FusionEvent &e) {
  h.U64(static_cast<uint64_t>(e.timestamp));
  for (float v : e.values) {
    h.F32(v);
    r.non_finite[kind] += std::isfinite(v) ? 0 : 1;
  }
  h.Bytes(e.reserved, sizeof e.reserved);
  h.Byte(static_cast<unsigned char>(e.accuracy));
  for (uint8_t b : e.reserved) r.bad_records += b != 0 ? 1 : 0;
  r.bad_records += (e.accuracy < 0 || e.accuracy > 3) ? 1 : 0;
}

Replay ReplayRecording(int8_t hw_gyro, const char *hwname, const char *sysfs_root) {
  __android_log_set_logger(DiscardLine);
  __android_log_set_minimum_priority(ANDROID_LOG_SILENT);
  qvn_host_property_set("ro.boot.hwname", hwname);
  qvn_host_set_sysfs_root(sysfs_root);
  const QvnLibApiTable &api = MAG_LIB_API_INTERFACE;
  const ChipInfo info = {1, 8, hw_gyro};
  api.QVN_CaliInitLib(&info);
  const QvnFusionGetFn getters[7] = {
      api.QVN_FusionGetGravity,      api.QVN_FusionGetRotationVector,
      api.QVN_FusionGetOrientation,  api.QVN_FusionGetLinearaccel,
      api.QVN_FusionGetGameRotationVector, api.QVN_FusionGetGeoMagnetic,
      api.QVN_FusionGetVirtualGyro};
  qvn_test::Fnv1a h;
  Replay r = {0, {0}, 0};
  Phone phone;
  uint32_t lcg = 12345u;
  for (int k = 0; k < kSteps; ++k) {
    const float *w = kRates[k / kSegment];
    phone.Advance(w);
    // Every 97th sample repeats the previous timestamp, as some drivers do.
    const int64_t t = kStart + kPeriod * (k % 97 == 96 ? k - 1 : k);
    float acc[3], field[3];
    const float g[3] = {0.0f, 0.0f, kGravity};
    phone.ToBody(g, acc);
    phone.ToBody(kEarthField, field);
    float mag[3];
    for (int i = 0; i < 3; ++i) {
      lcg = lcg * 1664525u + 1013904223u;
      mag[i] = field[i] + kHardIron[i] +
               kMagNoise * (static_cast<float>(lcg >> 8) / 8388608.0f - 1.0f);
    }
    if (k >= kDisturbedFrom && k < kDisturbedTo) mag[0] += kDisturbance;
    const SensorEvent ea = {t, acc[0], acc[1], acc[2], 3};
    const SensorEvent eg = {t, w[0] + kGyroBias[0], w[1] + kGyroBias[1], w[2] + kGyroBias[2], 3};
    const SensorEvent em = {t, mag[0], mag[1], mag[2], 3};
    // The gyroscope sample comes last: a fusion step that runs before the
    // first magnetometer sample has set the rate divides the start-up ramp
    // by a zero length and leaves the attitude NaN for good (hwGyro 1).
    api.QVN_CaliApiSetAccelData(&ea);
    api.QVN_CaliApiSetMagData(&em);
    CaliResult out;
    memset(&out, 0xA5, sizeof out);
    api.QVN_DoCaliAPI(&em, &out);
    api.QVN_CaliApiSetGyroData(&eg);
    h.U64(static_cast<uint64_t>(out.timestamp));
    for (float v : {out.x, out.y, out.z, out.bias_x, out.bias_y, out.bias_z}) {
      h.F32(v);
      r.non_finite[0] += std::isfinite(v) ? 0 : 1;
    }
    h.Byte(static_cast<unsigned char>(out.accuracy));
    r.bad_records += (out.accuracy < 0 || out.accuracy > 3) ? 1 : 0;
    for (int which = 0; which < 7; ++which) {
      FusionEvent e;
      memset(&e, 0xA5, sizeof e);
      getters[which](&e);
      HashFusion(h, r, 1 + which, e);
    }
    float offset[3];
    api.QVN_CaliApiGetOffset(offset);
    for (float v : offset) {
      h.F32(v);
      r.non_finite[8] += std::isfinite(v) ? 0 : 1;
    }
  }
  r.digest = h.value();
  return r;
}

std::map<std::string, std::string> ReadDigests() {
  std::map<std::string, std::string> m;
  std::ifstream in(kDigestFile);
  std::string name, hex;
  while (in >> name >> hex) m[name] = hex;
  return m;
}

void WriteDigest(const std::string &name, const std::string &hex) {
  std::map<std::string, std::string> m = ReadDigests();
  m[name] = hex;
  std::ofstream out(kDigestFile, std::ios::trunc);
  for (const auto &kv : m) out << kv.first << ' ' << kv.second << '\n';
}

struct Case {
  const char *name;
  int8_t hw_gyro;
  const char *hwname;  // device variant property
};

void PrintTo(const Case &c, std::ostream *os) { *os << c.name; }

class OutputDigest : public ::testing::TestWithParam<Case> {};

TEST_P(OutputDigest, MatchesTheCommittedX86Value) {
  const Case &c = GetParam();
  // Charging at 1.5 A, so the current compensation is part of every sample.
  char root[] = "/tmp/qvn_digest_XXXXXX";
  ASSERT_NE(mkdtemp(root), nullptr);
  std::string dir = std::string(root) + "/sys/class/power_supply/battery";
  ASSERT_EQ(system(("mkdir -p " + dir).c_str()), 0);
  std::ofstream(dir + "/current_now") << "1500000\n";

  const Replay r = ReplayRecording(c.hw_gyro, c.hwname, root);
  ASSERT_EQ(system((std::string("rm -rf ") + root).c_str()), 0);
  EXPECT_EQ(NonFinite(r), "") << "a plausible recording produced NaN or infinite outputs";
  EXPECT_EQ(r.bad_records, 0) << "accuracy out of 0..3 or reserved bytes written";

  char hex[19];
  snprintf(hex, sizeof hex, "%016llx", static_cast<unsigned long long>(r.digest));
  if (getenv("QVN_UPDATE_DIGESTS") != nullptr) {
    WriteDigest(c.name, hex);
    return;
  }
  const std::map<std::string, std::string> expected = ReadDigests();
  const auto it = expected.find(c.name);
  ASSERT_NE(it, expected.end()) << "no committed digest for " << c.name << " (this run: " << hex
                                << "); regenerate them on x86_64 as the file header says";
  EXPECT_EQ(it->second, hex) << "output bits differ from the committed x86_64 replay";
}

INSTANTIATE_TEST_SUITE_P(
    Recording, OutputDigest,
    ::testing::Values(Case{"no_gyro_plain", 0, "trel"}, Case{"hw_gyro_plain", 1, "trel"},
                      Case{"no_gyro_nfc", 0, "vask"}, Case{"hw_gyro_nfc", 1, "vask"}),
    [](const ::testing::TestParamInfo<Case> &p) { return std::string(p.param.name); });

}  // namespace
