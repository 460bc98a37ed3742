// The accuracy scoring and the tuning tool end to end, on simulated walks
// whose truth is known: the replay scores every output against gt.csv and
// the scores fall apart when the truth is wrong; the early-gyroscope trap and
// both host remedies show in the scores; qvn_tune is deterministic, its set
// file replays to the very numbers it reported, and its C snippet compiles.
#include <stdlib.h>

#include <string>

#include "support/tool_run.h"

#if defined(QVN_REPLAY_TOOL) && defined(QVN_SIMULATE_TOOL) && defined(QVN_TUNE_TOOL)

namespace {

constexpr char kWalk[] = "--motion still:2,figure8:16,level:1,walk:24:6 --seed 5";

using qvn_test::ToolRun;

class TuneToolTest : public qvn_test::ToolDir {
 protected:
  void SetUp() override {
    ToolDir::SetUp();
    ASSERT_EQ(Exec(QVN_SIMULATE_TOOL, "--out-dir " + Path("sim") + " " + kWalk).code, 0);
    events = Path("sim") + "/events.csv";
  }

  // The line of the replay's accuracy table that starts with the output's name.
  static std::string TableLine(const std::string &out, const std::string &name) {
    size_t at = out.find("\n  " + name + " ");
    return at == std::string::npos ? "" : out.substr(at + 1, out.find('\n', at + 1) - at - 1);
  }
  // The number after the first '|' of a table line (the heading RMS) or the
  // second (the tilt RMS), or -1.
  static double Rms(const std::string &line, int bars) {
    size_t bar = line.find('|');
    if (bars == 2 && bar != std::string::npos) bar = line.find('|', bar + 1);
    return bar == std::string::npos ? -1 : atof(line.c_str() + bar + 1);
  }
  static double HeadingRms(const std::string &line) { return Rms(line, 1); }

  std::string events;
};

TEST_F(TuneToolTest, ScoresEveryOutputAndFallsApartWithAWrongTruth) {
  ToolRun r = Exec(QVN_REPLAY_TOOL,
               "--hw-gyro 1 --skip-early-gyro --errors-out " + Path("err.csv") + " " + events);
  ASSERT_EQ(r.code, 0) << r.err;
  for (const char *name :
       {"Orientation", "RotationVector", "GameRotationVector", "GeoMagnetic", "Qfusion"}) {
    EXPECT_GT(HeadingRms(TableLine(r.out, name)), 0.0) << name << "\n" << r.out;
  }
  // A gyroscope-driven attitude on a simulated walk: a few degrees.
  std::string q = TableLine(r.out, "Qfusion");
  EXPECT_LT(HeadingRms(q), 10.0) << q;
  EXPECT_LT(Rms(q, 2), 5.0) << q;
  // The same outputs against a truth one second late.
  ToolRun late = Exec(QVN_REPLAY_TOOL, "--hw-gyro 1 --skip-early-gyro --gt-shift-ms 1000 " + events);
  ASSERT_EQ(late.code, 0) << late.err;
  EXPECT_GT(HeadingRms(TableLine(late.out, "Qfusion")), 3 * HeadingRms(q)) << late.out;
  // Per-step errors: a header of two plus two columns per output, one row a step.
  std::string csv = Slurp(Path("err.csv"));
  EXPECT_EQ(csv.rfind("t_s,accuracy,orientation_heading,orientation_tilt,rv_heading", 0), 0u);
  // Without a gyroscope the attitude quaternion is never advanced.
  ToolRun compass = Exec(QVN_REPLAY_TOOL, "--hw-gyro 0 " + events);
  EXPECT_NE(compass.out.find("Qfusion             never changes on this path"), std::string::npos)
      << compass.out;
}

TEST_F(TuneToolTest, EarlyGyroscopeTrapAndBothRemedies) {
  // The simulator puts the magnetometer last at equal times, so the first
  // gyroscope sample comes before any magnetometer sample.
  ToolRun trapped = Exec(QVN_REPLAY_TOOL, "--hw-gyro 1 " + events);
  EXPECT_NE(TableLine(trapped.out, "Qfusion").find("no step scored"), std::string::npos)
      << trapped.out;
  ToolRun skipped = Exec(QVN_REPLAY_TOOL, "--hw-gyro 1 --skip-early-gyro " + events);
  ToolRun reinit = Exec(QVN_REPLAY_TOOL, "--hw-gyro 1 --reinit-on-nan " + events);
  EXPECT_NE(reinit.out.find("remedy              1 re-initialisations"), std::string::npos)
      << reinit.out;
  for (const char *name : {"Orientation", "Qfusion"}) {
    double a = HeadingRms(TableLine(skipped.out, name)),
           b = HeadingRms(TableLine(reinit.out, name));
    EXPECT_GT(a, 0.0) << skipped.out;
    EXPECT_NEAR(a, b, 1.0) << name;  // one re-initialisation, then the same filter
  }
}

TEST_F(TuneToolTest, TuningIsDeterministicAndItsSetReplaysToTheReportedScores) {
  std::string args =
      "--hw-gyro 1 --budget 6 --seed 3 --range g_quat_weight_mag_normal=0.0005:0.02:log "
      "--range 'g_enable_mag_moving_average=0|1' --range g_quat_weight_acc_delta=0:0.28 "
      "--train " +
      events + ",to=28 --test " + events + ",from=20";
  ToolRun a = Exec(QVN_TUNE_TOOL, args + " --out-set " + Path("a.txt") + " --out-c " + Path("a.c"));
  ASSERT_EQ(a.code, 0) << a.err;
  ToolRun b = Exec(QVN_TUNE_TOOL, args + " --out-set " + Path("b.txt") + " --out-c " + Path("b.c"));
  ASSERT_EQ(b.code, 0) << b.err;
  // The same file but for its first line, the command with the output names.
  std::string set = Slurp(Path("a.txt")), other = Slurp(Path("b.txt"));
  EXPECT_EQ(set.substr(set.find('\n')), other.substr(other.find('\n')));
  EXPECT_NE(set.find("\ng_quat_weight_mag_normal="), std::string::npos) << set;
  EXPECT_NE(a.err.find("tuning ["), std::string::npos) << "a progress bar on stderr";
  // The tuned training score, as the tuner printed it and as the replay of
  // the same span with the set file computes it.
  size_t row = a.out.find("  tuned   train ");
  ASSERT_NE(row, std::string::npos) << a.out;
  std::string line = a.out.substr(row, a.out.find('\n', row) - row);
  double tuned = atof(line.c_str() + line.find(" s ") + 3);
  ToolRun replay = Exec(QVN_REPLAY_TOOL,
                    "--hw-gyro 1 --skip-early-gyro --to 28 --warmup 10 --no-lag --set-file " +
                        Path("a.txt") + " " + events);
  ASSERT_EQ(replay.code, 0) << replay.err;
  EXPECT_NEAR(HeadingRms(TableLine(replay.out, "Orientation")), tuned, 0.006) << line << "\n"
                                                                              << replay.out;
  // The host snippet is C that compiles on its own.
  std::string cc =
      "cc -std=c99 -Wall -Wextra -Werror -Wno-unused-function -fsyntax-only '" + Path("a.c") + "'";
  EXPECT_EQ(std::system(cc.c_str()), 0) << Slurp(Path("a.c"));
}

}  // namespace

#else
TEST(TuneTool, NeedsTheTools) { GTEST_SKIP() << "built without QVN_BUILD_TOOLS"; }
#endif
