// The host layer on its own terms: a reset returns every writable byte of the
// core to its load-time value, hygiene counts by reason, and the calibration
// file brings a restart back, or is refused with a reason when it is not whole.
// (That a clean run through the layer is the bare run byte for byte is checked
// end to end by replay_layer_test.)
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "host_layer/host_driver.h"
#include "support/param_name.h"
#include "support/tool_run.h"

namespace qvn_test {
namespace {

constexpr int64_t kS = 1000000000;

// Every writable byte of the core, compared with a copy taken at load.
TEST(HostLayer, ResetRestoresEveryWritableByte) {
  void *h = dlopen(QVN_LIB_PATH, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(h, nullptr);
  // The .data and .bss between two variables the library defines far apart.
  std::vector<std::pair<const char *, size_t>> probes = {
      {"hdi_array", 12}, {"Qfusion", 16}, {"DM", 324}, {"BRM", 36}, {"orient_pre", 12},
      {"mag_cali_pre", 12}, {"timestamp_fuison", 8}, {"kmf_p", 4}};
  std::vector<std::vector<unsigned char>> before;
  for (auto &p : probes) {
    auto *b = static_cast<unsigned char *>(dlsym(h, p.first));
    ASSERT_NE(b, nullptr) << p.first;
    before.emplace_back(b, b + p.second);
  }
  {
    HostDriver d(Path::kLayer, 1, "");
    ASSERT_TRUE(d.ok());
    d.Run(Scene(15.0, 5.0 * kS));
    static_cast<float *>(dlsym(h, "mag_cali_pre"))[0] = NAN;
    static_cast<float *>(dlsym(h, "orient_pre"))[0] = NAN;
    ASSERT_EQ(qvn_layer_reset_to_load_state(), 0);
    for (size_t i = 0; i < probes.size(); ++i) {
      auto *b = static_cast<unsigned char *>(dlsym(h, probes[i].first));
      EXPECT_EQ(std::memcmp(b, before[i].data(), probes[i].second), 0) << probes[i].first;
    }
  }
  dlclose(h);
}

TEST(HostLayer, HygieneCountsByReason) {
  HostDriver d(Path::kLayer, 1, "");
  ASSERT_TRUE(d.ok());
  struct Drop {
    int sensor;
    int64_t t;
    float x;
    int code;
  } drops[] = {
      {QVN_LAYER_GYRO, 5 * kS, 0.1f, QVN_LAYER_HELD},  // no magnetometer sample yet
      {QVN_LAYER_MAG, 5 * kS, 30.0f, QVN_LAYER_PASSED},
      {QVN_LAYER_GYRO, 5 * kS + 1, 0.1f, QVN_LAYER_PASSED},
      {QVN_LAYER_ACC, 5 * kS, NAN, QVN_LAYER_NON_FINITE},
      {QVN_LAYER_ACC, 5 * kS, 161.0f, QVN_LAYER_OUT_OF_RANGE},
      {QVN_LAYER_GYRO, 5 * kS + 2, -INFINITY, QVN_LAYER_NON_FINITE},
      {QVN_LAYER_GYRO, 5 * kS, 0.1f, QVN_LAYER_CLOCK},  // earlier than its last
      {QVN_LAYER_MAG, 5 * kS + 3, 3001.0f, QVN_LAYER_OUT_OF_RANGE},
  };
  for (const Drop &x : drops) {
    SensorEvent e = {x.t, x.x, 1.0f, 2.0f, 3};
    CaliResult r;
    int code = x.sensor == QVN_LAYER_ACC    ? qvn_layer_set_accel(&e)
               : x.sensor == QVN_LAYER_GYRO ? qvn_layer_set_gyro(&e)
                                            : qvn_layer_set_mag(&e, &r);
    EXPECT_EQ(code, x.code) << "sensor " << x.sensor << " x " << x.x;
  }
  const float bad[3] = {0.0f, INFINITY, 0.0f}, far[3] = {0.0f, 4000.0f, 0.0f};
  EXPECT_EQ(qvn_layer_set_offset(bad), QVN_LAYER_NON_FINITE);
  EXPECT_EQ(qvn_layer_set_offset(far), QVN_LAYER_OUT_OF_RANGE);
  QvnLayerCounters n;
  ASSERT_EQ(qvn_layer_counters(&n), 0);
  EXPECT_EQ(n.held_gyro, 1u);
  EXPECT_EQ(n.non_finite[QVN_LAYER_ACC] + n.non_finite[QVN_LAYER_GYRO], 2u);
  EXPECT_EQ(n.out_of_range[QVN_LAYER_ACC] + n.out_of_range[QVN_LAYER_MAG], 2u);
  EXPECT_EQ(n.clock[QVN_LAYER_GYRO], 1u);
  EXPECT_EQ(n.offsets_refused, 2u);
  EXPECT_EQ(n.passed[QVN_LAYER_MAG] + n.passed[QVN_LAYER_GYRO], 2u);
}

// A host whose own tunable set breaks the outputs: the layer leaves the set
// out rather than recovering into the same NaN at every step.
TEST(HostLayer, BreakingTunableSetIsLeftOut) {
  HostDriver d(Path::kLayer, 1, "");
  ASSERT_TRUE(d.ok());
  const float nan = NAN;
  std::vector<Outputs> out = d.Run(
      Scene(20.0, 5.0 * kS), {{10 * kS, [&](HostDriver &) {
                                 ASSERT_EQ(qvn_layer_set_tunable("g_quat_weight_mag_normal", 0,
                                                                 &nan, sizeof nan),
                                           0);
                               }}});
  QvnLayerCounters n;
  ASSERT_EQ(qvn_layer_counters(&n), 0);
  EXPECT_EQ(n.tunables_suspended, 1u);
  EXPECT_LE(n.recoveries, 3u);
  for (const Outputs &o : out) {
    if (o.t_ns > 11 * kS) {
      ASSERT_TRUE(o.AllFinite()) << o.t_ns;
    }
  }
}

// A run that calibrates with a tunable of its own leaves the calibration
// file (at close, or when asked); the file is then changed and the layer
// restarted from it. A whole file brings back the offset, the accuracy and
// the tunable; any other starts from the defaults and says why.
struct FileCase {
  const char *name;
  std::string (*change)(const std::string &saved);
  const char *reason;  // part of the refusal message; nullptr: loaded
};

void PrintTo(const FileCase &c, std::ostream *os) { *os << c.name; }

std::string ChangeAnOffsetDigit(const std::string &saved) {
  std::string s = saved;
  size_t p = s.find('1', s.find("offset"));
  if (p != std::string::npos) s[p] = '7';
  return s;
}

const FileCase kFiles[] = {
    {"Whole", [](const std::string &g) { return g; }, nullptr},
    {"Empty", [](const std::string &) { return std::string(); }, "empty"},
    {"Truncated", [](const std::string &g) { return g.substr(0, g.size() - 6); }, "truncated"},
    {"CutBeforeChecksum", [](const std::string &g) { return g.substr(0, g.find("checksum")); },
     "truncated"},
    {"OneDigitChanged", ChangeAnOffsetDigit, "corrupt"},
    {"Foreign", [](const std::string &) { return std::string("<?xml version=\"1.0\"?>\n"); },
     "not a calibration file"},
    {"OtherVersion",
     [](const std::string &g) { return "qvnlib-calibration 2" + g.substr(g.find('\n')); },
     "version"},
};

class CalibrationFile : public ToolDir, public ::testing::WithParamInterface<FileCase> {};

TEST_P(CalibrationFile, RestartsFromItOrFromTheDefaultsWithAReason) {
  const FileCase &c = GetParam();
  const std::string file = Path("calibration");
  float saved[3];
  {
    HostDriver d(qvn_test::Path::kLayer, 1, "", file);
    ASSERT_TRUE(d.ok());
    const float r = 0.25f;
    ASSERT_EQ(qvn_layer_set_tunable("output_mag_lpf_ratio", 0, &r, sizeof r), 0);
    ASSERT_GT(d.Run(Scene(20.0, 5.0 * kS)).back().cal.accuracy, 0);
    qvn_layer_get_offset(saved);
    char why[128];
    if (c.reason != nullptr) {
      ASSERT_EQ(qvn_layer_save(why, sizeof why), 0) << why;
    }
  }
  const std::string text = Slurp(file);
  ASSERT_EQ(text.rfind("qvnlib-calibration 1\n", 0), 0u) << text;
  std::ofstream(file, std::ios::binary | std::ios::trunc) << c.change(text);
  HostDriver d(qvn_test::Path::kLayer, 1, "", file);
  ASSERT_TRUE(d.ok());
  QvnLayerCounters n;
  qvn_layer_counters(&n);
  float now[3];
  qvn_layer_get_offset(now);
  if (c.reason == nullptr) {
    EXPECT_EQ(n.load_status, QVN_LAYER_FILE_LOADED) << n.load_message;
    EXPECT_EQ(std::memcmp(now, saved, sizeof now), 0);
    EXPECT_EQ(*d.Var<float>("output_mag_lpf_ratio"), 0.25f);
    EXPECT_GT(*d.Var<int16_t>("qvn_accuracy"), 0);
  } else {
    EXPECT_EQ(n.load_status, QVN_LAYER_FILE_REFUSED);
    EXPECT_NE(std::string(n.load_message).find(c.reason), std::string::npos) << n.load_message;
    EXPECT_EQ(now[0], 0.0f);
    EXPECT_NE(*d.Var<float>("output_mag_lpf_ratio"), 0.25f);
    EXPECT_EQ(*d.Var<int16_t>("qvn_accuracy"), 0);
  }
}

INSTANTIATE_TEST_SUITE_P(Restart, CalibrationFile, ::testing::ValuesIn(kFiles), ByName());

}  // namespace
}  // namespace qvn_test
