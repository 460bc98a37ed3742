// The replay and simulation tools, run as an integrator runs them (bad inputs:
// tool_input_test.cpp): good inputs give one row per calibration step;
// --set reaches the library with the variable's own type; the private
// power-supply folder compensates charging and ignores this machine's battery;
// and a simulated figure-eight's offset comes back end to end.
#include <string>
#include <vector>

#include "api/api.h"
#include "support/tool_run.h"

#if defined(QVN_REPLAY_TOOL) && defined(QVN_SIMULATE_TOOL)

namespace {

namespace fs = std::filesystem;

constexpr int kColumns = 35;                // columns of the step CSV
constexpr float kOffsetToleranceUt = 0.5f;  // as the calibration tests use

using qvn_test::ToolRun;

class ToolTest : public qvn_test::ToolDir {
 protected:
  // Rows of a CSV as fields, header dropped.
  static std::vector<std::vector<std::string>> Rows(const std::string &path,
                                                    std::string *header = nullptr) {
    std::ifstream in(path);
    std::vector<std::vector<std::string>> rows;
    std::string line;
    std::getline(in, line);
    if (header != nullptr) *header = line;
    while (std::getline(in, line)) {
      std::vector<std::string> f;
      std::stringstream s(line);
      std::string cell;
      while (std::getline(s, cell, ',')) f.push_back(cell);
      rows.push_back(f);
    }
    return rows;
  }
};

// A short, well-formed recording: 50 Hz magnetometer, accelerometer beside it.
std::string SmallRecording(int mag_samples) {
  std::string csv = "t_ns,sensor,x,y,z\n";
  for (int i = 0; i < mag_samples; ++i) {
    long long t = 1000000000LL + 20000000LL * i;
    csv += std::to_string(t) + ",acc,0.1,0.2,9.8\n";
    csv += std::to_string(t) + ",gyr,0.01,0,0\n";
    csv += std::to_string(t) + ",mag," + std::to_string(20 + i % 7) + ",-5.5,40.25\n";
  }
  return csv;
}

TEST_F(ToolTest, WritesOneRowPerCalibrationStepWithEveryOutput) {
  const int kSteps = 40;
  std::string events = Write("events.csv", SmallRecording(kSteps));
  ToolRun r = Exec(QVN_REPLAY_TOOL, "--out " + Path("steps.csv") + " " + events);
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_NE(r.out.find("events replayed     120 (acc 40, gyr 40, mag 40, cur 0)"),
            std::string::npos)
      << r.out;
  std::string header;
  auto rows = Rows(Path("steps.csv"), &header);
  EXPECT_EQ(header.rfind(
                "t_ns,raw_x,raw_y,raw_z,cal_x,cal_y,cal_z,offset_x,offset_y,offset_z,accuracy,", 0),
            0u);
  ASSERT_EQ(rows.size(), static_cast<size_t>(kSteps));
  for (int i = 0; i < kSteps; ++i) {
    ASSERT_EQ(rows[i].size(), static_cast<size_t>(kColumns)) << "row " << i;
    EXPECT_EQ(std::stoll(rows[i][0]), 1000000000LL + 20000000LL * i);
    EXPECT_EQ(std::stof(rows[i][1]), static_cast<float>(20 + i % 7));  // raw as handed over
    EXPECT_EQ(std::stof(rows[i][3]), 40.25f);
    int accuracy = std::stoi(rows[i][10]);
    EXPECT_TRUE(accuracy >= 0 && accuracy <= 3);
  }
}

TEST_F(ToolTest, ReportsTheEarlyGyroscopeTrap) {
  std::string events = Write("events.csv", "2000,gyr,0.1,0,0\n3000,acc,0,0,9.8\n4000,mag,1,2,3\n");
  ToolRun r = Exec(QVN_REPLAY_TOOL, "--hw-gyro 1 --out " + Path("steps.csv") + " " + events);
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_NE(r.err.find("events.csv:1: warning: with --hw-gyro 1"), std::string::npos) << r.err;
  // The NaN shows in the summary, which points at the warning.
  EXPECT_NE(r.out.find("see the --hw-gyro 1 warning on stderr"), std::string::npos) << r.out;
  ToolRun skipped = Exec(QVN_REPLAY_TOOL, "--hw-gyro 1 --skip-early-gyro " + events);
  EXPECT_EQ(skipped.err.find("--hw-gyro 1 this gyroscope"), std::string::npos) << skipped.err;
  EXPECT_NE(skipped.out.find("skipped             1 gyroscope events"), std::string::npos)
      << skipped.out;
}

TEST_F(ToolTest, SetWritesTheLibraryVariableWithItsOwnType) {
  std::string events = Write("events.csv", SmallRecording(10));
  // A float element and a uint8 switch: the offset in force, and no soft
  // gyroscope, which leaves the rotation vector at its initial (0, 0, 0, 1).
  ToolRun r = Exec(QVN_REPLAY_TOOL, "--set hdi_array[0]=10.5 --set g_slect_swgyro_mode=0 --out " +
                                        Path("steps.csv") + " " + events);
  ASSERT_EQ(r.code, 0) << r.err;
  auto rows = Rows(Path("steps.csv"));
  ASSERT_FALSE(rows.empty());
  for (const auto &row : rows) {
    EXPECT_EQ(std::stof(row[7]), 10.5f);
    EXPECT_EQ(row[14] + "," + row[15] + "," + row[16] + "," + row[17], "0,0,0,1");
  }
}

TEST_F(ToolTest, ChargingIsCompensatedAndThisMachinesBatteryIgnored) {
  std::string sim = Path("sim");
  ASSERT_EQ(Exec(QVN_SIMULATE_TOOL,
                 "--out-dir " + sim + " --motion still:6 --noise-mag 0 --charging 2,2,1500000")
                .code,
            0);
  // A battery folder that must not leak in: a large current.
  fs::create_directories(dir_ / "battery/sys/class/power_supply/battery");
  std::ofstream(dir_ / "battery/sys/class/power_supply/battery/current_now") << "9000000\n";
  ToolRun r = Exec(QVN_REPLAY_TOOL, "--out " + Path("steps.csv") + " " + sim + "/events.csv",
                   "QVN_SYSFS_ROOT=" + Path("battery"));
  ASSERT_EQ(r.code, 0) << r.err;
  auto rows = Rows(Path("steps.csv"));
  ASSERT_GT(rows.size(), 250u);
  // The raw field steps by the current's field during the window; the
  // compensated output does not move at all (no noise, no motion).
  bool raw_moved = false;
  for (const auto &row : rows) {
    raw_moved = raw_moved || row[1] != rows[0][1];
    for (int k = 4; k <= 6; ++k) EXPECT_NEAR(std::stof(row[k]), std::stof(rows[0][k]), 1e-4f);
  }
  EXPECT_TRUE(raw_moved);
}

TEST_F(ToolTest, RecoversTheOffsetOfASimulatedFigureEight) {
  std::string sim = Path("sim");
  ToolRun s = Exec(QVN_SIMULATE_TOOL, "--out-dir " + sim + " --seed 7 --offset 35,-61.5,18");
  ASSERT_EQ(s.code, 0) << s.err;
  ToolRun r = Exec(QVN_REPLAY_TOOL, "--out " + Path("steps.csv") + " " + sim + "/events.csv");
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_NE(r.out.find("library frame"), std::string::npos)
      << "truth.txt beside the events is read";
  auto rows = Rows(Path("steps.csv"));
  ASSERT_FALSE(rows.empty());
  const auto &last = rows.back();
  EXPECT_EQ(last[10], "3");
  // The library's offset lives after the device's fixed soft-iron matrix.
  const double truth[3] = {35, -61.5, 18};
  for (int i = 0; i < 3; ++i) {
    double expected = 0;
    for (int k = 0; k < 3; ++k) expected += fMagSP_nonfc[3 * i + k] * truth[k];
    EXPECT_NEAR(std::stof(last[7 + i]), expected, kOffsetToleranceUt) << "axis " << i;
  }
}

TEST_F(ToolTest, SimulationIsDeterministicPerSeed) {
  for (const char *run : {"a", "b", "c"}) {
    const std::string seed = (run[0] == 'c') ? "4" : "3";
    ASSERT_EQ(Exec(QVN_SIMULATE_TOOL, "--motion still:1,figure8:3 --seed " + seed + " --out-dir " +
                                          Path(run)).code,
              0);
  }
  EXPECT_EQ(Slurp(Path("a/events.csv")), Slurp(Path("b/events.csv")));
  EXPECT_NE(Slurp(Path("a/events.csv")), Slurp(Path("c/events.csv")));
}

}  // namespace

#else
TEST(ReplayTool, NeedsTheTools) { GTEST_SKIP() << "built without QVN_BUILD_TOOLS"; }
#endif
