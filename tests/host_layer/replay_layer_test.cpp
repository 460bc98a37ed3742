// qvn_replay --host-layer: on a clean recording the step file is the bare
// replay's byte for byte; with a NaN magnetometer line the bare replay ends
// with a NaN azimuth and the layered one does not, and says what it dropped.
#include <gtest/gtest.h>

#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <sstream>
#include <string>

#include "host_layer/host_driver.h"
#include "support/tool_run.h"

namespace qvn_test {
namespace {

class ReplayThroughLayer : public ToolDir {
 protected:
  // The standard scene as an event file; a NaN magnetometer sample at 12 s.
  std::string Recording(bool with_nan) {
    std::ostringstream s;
    s << "t_ns,sensor,x,y,z\n";
    static const char *const kNames[] = {"acc", "gyr", "mag"};
    bool broke = false;
    for (const SimEvent &e : Scene(25.0, 5e9)) {
      char line[160];
      std::snprintf(line, sizeof line, "%" PRId64 ",%s,%.9g,%.9g,%.9g\n", e.t_ns,
                    kNames[static_cast<int>(e.sensor)], double{e.x}, double{e.y}, double{e.z});
      s << line;
      if (with_nan && !broke && e.sensor == Sensor::kMag && e.t_ns >= 12000000000) {
        s << e.t_ns + 1000 << ",mag,nan,20,-40\n";
        broke = true;
      }
    }
    return Write(with_nan ? "nan.csv" : "clean.csv", s.str());
  }

  ToolRun Replay(const std::string &events, const std::string &out, const char *extra) {
    return Exec(QVN_REPLAY_TOOL, "--hw-gyro 1 --skip-early-gyro --no-truth --out '" + Path(out) +
                                     "' " + extra + " '" + events + "'");
  }

  // The last step's azimuth (the 12th column); "none" without one.
  std::string LastAzimuth(const char *steps) const {
    auto rows = Rows(Path(steps));
    return rows.empty() || rows.back().size() < 12 ? "none" : rows.back()[11];
  }
};

TEST_F(ReplayThroughLayer, CleanRecordingGivesTheBareStepsByteForByte) {
  std::string events = Recording(false);
  ToolRun bare = Replay(events, "bare.csv", "");
  ToolRun layered = Replay(events, "layer.csv", "--host-layer");
  ASSERT_EQ(bare.code, 0) << bare.err;
  ASSERT_EQ(layered.code, 0) << layered.err;
  EXPECT_EQ(Slurp(Path("layer.csv")), Slurp(Path("bare.csv")));
  EXPECT_NE(layered.out.find("recoveries: 0"), std::string::npos) << layered.out;
}

TEST_F(ReplayThroughLayer, NanSampleIsDroppedInsteadOfKeptForGood) {
  std::string events = Recording(true);
  // The tool refuses a NaN in a recording unless told to hand it over.
  ToolRun bare = Replay(events, "bare.csv", "--allow-nonfinite");
  ASSERT_EQ(bare.code, 0) << bare.err;
  ToolRun layered = Replay(events, "layer.csv", "--allow-nonfinite --host-layer");
  ASSERT_EQ(layered.code, 0) << layered.err;
  EXPECT_NE(LastAzimuth("bare.csv").find("nan"), std::string::npos);
  EXPECT_TRUE(std::isfinite(std::stod(LastAzimuth("layer.csv"))));
  size_t mag = layered.out.find("  mag: ");
  ASSERT_NE(mag, std::string::npos) << layered.out;
  EXPECT_NE(layered.out.find("dropped 1 not finite", mag), std::string::npos) << layered.out;
}

}  // namespace
}  // namespace qvn_test
