// Every tool fed bad, hostile and borderline input as a new user would: each
// case names its files and options, the exit status and the message it must
// print. The table is the tools' input contract: bad input exits 2 naming
// file, line, column and value (cut to a readable length); a file that cannot
// be used (missing input, an output that is not a regular file) exits 1;
// and nothing half-written, nor a replaced device or FIFO, is left behind.
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

#include "support/param_name.h"
#include "support/tool_run.h"

#if defined(QVN_REPLAY_TOOL) && defined(QVN_SIMULATE_TOOL) && defined(QVN_TUNE_TOOL) && \
    defined(QVN_PLOT_TOOL)

namespace {

namespace fs = std::filesystem;
using Files = std::vector<std::pair<std::string, std::string>>;

constexpr int kPlotUnavailable = 3;      // the plot wrapper without matplotlib
constexpr size_t kReadableMessage = 1500;  // no message echoes a whole input

const std::string kGood = qvn_test::Recording(40);
const std::string kTruth = "t_ns,qw,qx,qy,qz\n1000000000,1,0,0,0\n1800000000,1,0,0,0\n";
Files Events(const std::string &csv) { return {{"events.csv", csv}}; }
Files WithTruth(const std::string &gt) { return {{"events.csv", kGood}, {"gt.csv", gt}}; }

struct Case {
  const char *name;
  const char *tool;  // replay, simulate, tune or plot
  std::string args;  // $D stands for the case's folder
  Files files;       // written first; "@fifo", "@dir", "@link:TARGET", "@long-line" and
                     // "@steps" (a replay's --out of kGood) make special ones
  int code;
  std::string message;  // in stderr, or in stdout or stderr when code is 0
  Files after = {};     // files that must then start with the given text
};

void PrintTo(const Case &c, std::ostream *os) { *os << c.name; }

std::string Expand(std::string s, const std::string &dir) {
  for (size_t at; (at = s.find("$D")) != std::string::npos;) s.replace(at, 2, dir);
  return s;
}

class ToolInput : public qvn_test::ToolDir, public ::testing::WithParamInterface<Case> {
 protected:
  void Make(const std::string &name, const std::string &content) {
    const std::string path = Path(name);
    fs::create_directories(fs::path(path).parent_path());
    if (content == "@fifo") {
      ASSERT_EQ(mkfifo(path.c_str(), 0644), 0);
    } else if (content == "@dir") {
      fs::create_directories(path);
    } else if (content.rfind("@link:", 0) == 0) {
      fs::create_symlink(content.substr(6), path);
    } else if (content == "@long-line") {
      // A 20 MB line after a good one.
      Write(name, "t_ns,sensor,x,y,z\n1,mag,1,2,3\n2,mag," + std::string(20 << 20, '7') + "\n");
    } else if (content == "@steps") {
      Write("steps-source.csv", kGood);
      ASSERT_EQ(Exec(QVN_REPLAY_TOOL, "--no-summary --out " + path + " " + Path("steps-source.csv")).code, 0);
    } else {
      Write(name, content);
    }
  }
};

TEST_P(ToolInput, ExitsWithItsCodeAndMessage) {
  const Case &c = GetParam();
  for (const auto &[name, content] : c.files) Make(name, content);
  const std::string tool = std::string(c.tool) == "replay"     ? QVN_REPLAY_TOOL
                           : std::string(c.tool) == "simulate" ? QVN_SIMULATE_TOOL
                           : std::string(c.tool) == "tune"     ? QVN_TUNE_TOOL
                                                               : QVN_PLOT_TOOL;
  if (std::string(c.tool) == "tune" && !fs::exists(QVN_TUNE_TOOL)) {
    GTEST_SKIP() << "qvn_tune comes with the Python package, which this build leaves out";
  }
  qvn_test::ToolRun r = Exec(tool, Expand(c.args, dir_.string()));
  if (std::string(c.tool) == "plot" && r.code == kPlotUnavailable) {
    GTEST_SKIP() << "matplotlib is not installed (apt-get install python3-matplotlib)";
  }
  EXPECT_EQ(r.code, c.code) << r.err;
  const std::string where = c.code == 0 ? r.out + r.err : r.err;
  EXPECT_NE(where.find(Expand(c.message, dir_.string())), std::string::npos) << r.err << r.out;
  EXPECT_LT(r.err.size(), kReadableMessage) << r.err.substr(0, kReadableMessage);
  // Nothing half-written, and what was not a regular file still is not.
  for (const auto &e : fs::recursive_directory_iterator(dir_)) {
    EXPECT_EQ(e.path().filename().string().find(".partial"), std::string::npos) << e.path();
  }
  for (const auto &[name, content] : c.files) {
    if (content == "@fifo") {
      EXPECT_TRUE(fs::is_fifo(Path(name))) << name;
    } else if (content == "@dir") {
      EXPECT_TRUE(fs::is_directory(Path(name))) << name;
    }
  }
  EXPECT_TRUE(fs::is_character_file("/dev/full"));
  for (const auto &[name, start] : c.after) {
    EXPECT_EQ(Slurp(Path(name)).substr(0, start.size()), start) << name;
  }
}

const Case kCases[] = {
    // Outputs go only to regular files.
    {"OutToDeviceIsRefused", "replay", "--out /dev/full $D/events.csv", Events(kGood), 1,
     "--out: cannot write /dev/full: it is a character device"},
    {"OutToFifoIsRefused", "replay", "--out $D/fifo $D/events.csv",
     {{"events.csv", kGood}, {"fifo", "@fifo"}}, 1, "it is a FIFO"},
    {"OutToFolderIsRefused", "replay", "--out $D/dir $D/events.csv",
     {{"events.csv", kGood}, {"dir", "@dir"}}, 1, "it is a directory"},
    {"OutThroughLinkToDeviceIsRefused", "replay", "--out $D/link $D/events.csv",
     {{"events.csv", kGood}, {"link", "@link:/dev/null"}}, 1,
     "a character device (through a symbolic link)"},
    {"ErrorsOutToDeviceIsRefused", "replay", "--errors-out /dev/null $D/events.csv",
     WithTruth(kTruth), 1, "--errors-out: cannot write /dev/null"},
    {"OutIntoMissingFolderIsRefused", "replay", "--out $D/no/steps.csv $D/events.csv",
     Events(kGood), 1, "the folder $D/no does not exist"},
    {"OutThroughLinkToFileWritesTheTarget", "replay", "--no-summary --out $D/link $D/events.csv",
     {{"events.csv", kGood}, {"target.csv", "old"}, {"link", "@link:target.csv"}}, 0, "",
     {{"target.csv", "t_ns,raw_x"}}},
    // Values the library cannot take as float32, unless asked for.
    {"NanValueIsRefused", "replay", "$D/events.csv", Events("1,acc,0,0,9.8\n2,mag,1,nan,3\n"), 2,
     "events.csv:2: column y 'nan' is not a finite number"},
    {"ValueBeyondFloatIsRefused", "replay", "$D/events.csv", Events("1,mag,1e39,0,0\n"), 2,
     "events.csv:1: column x '1e39' is beyond the float32 range"},
    {"NanValuePassesOnRequest", "replay", "--allow-nonfinite $D/events.csv",
     Events(kGood + "2000000000,mag,nan,1,1\n"), 0, "events replayed     121"},
    {"CurrentBeyondInt64IsRefused", "replay", "$D/events.csv", Events("1,cur,1e30,0,0\n2,mag,1,2,3\n"),
     2, "events.csv:1: column x '1e30': a cur value must fit a 64-bit integer"},
    {"CurrentNanIsRefusedEvenOnRequest", "replay", "--allow-nonfinite $D/events.csv",
     Events("1,cur,nan,0,0\n"), 2, "a cur value must fit a 64-bit integer"},
    {"TunableBeyondFloatIsRefused", "replay", "--set g_quat_weight_acc_delta=1e50 $D/events.csv",
     Events(kGood), 2, "'1e50' is beyond the float32 range"},
    {"TunableNanIsRefused", "replay", "--set g_quat_weight_acc_delta=nan $D/events.csv",
     Events(kGood), 2, "'nan' is not a finite number"},
    {"TunableBeyondItsIntegerTypeIsRefused", "replay", "--set g_slect_swgyro_mode=256 $D/events.csv",
     Events(kGood), 2, "'256' is out of range [0, 255]"},
    {"NanTunableNamedWhenOutputsGoNan", "replay",
     "--allow-nonfinite --set g_quat_weight_acc_delta=nan --set g_quat_weight_mag_delta=nan "
     "--hw-gyro 1 --skip-early-gyro $D/events.csv",
     Events(kGood), 0, "values set: g_quat_weight_acc_delta=nan"},
    // Order, emptiness and spans.
    {"TimeGoingBackIsRefused", "replay", "$D/events.csv",
     Events("3000,acc,0,0,9.8\n2000,mag,1,2,3\n"), 2,
     "events.csv:2: column t_ns: time 2000 ns is earlier than line 1 (3000 ns)"},
    {"TimeGoingBackIsSortedOnRequest", "replay", "--sort $D/events.csv",
     Events("60000000,mag,1,2,3\n20000000,mag,1,2,3\n40000000,mag,1,2,3\n"), 0,
     "median interval 20.0 ms (50.0 Hz)"},
    {"TimeGoingBackIsKeptOnRequest", "replay", "--keep-order $D/events.csv",
     Events("3000,acc,0,0,9.8\n2000,mag,1,2,3\n"), 0,
     "events.csv:2: warning: time 2000 ns is earlier than line 1"},
    {"EmptyFileIsRefused", "replay", "$D/events.csv", Events(""), 2, "events.csv: no events"},
    {"HeaderOnlyIsRefused", "replay", "$D/events.csv", Events("t_ns,sensor,x,y,z\n# none\n"), 2,
     "no events"},
    {"FromPastTheEndIsRefused", "replay", "--from 5 $D/events.csv", Events(kGood), 2,
     "no events between --from 5 s"},
    {"TruthBesideTheEventsMustOverlap", "replay", "$D/events.csv",
     WithTruth("t_ns,qw,qx,qy,qz\n5000000000,1,0,0,0\n6000000000,1,0,0,0\n"), 2,
     "do not overlap"},
    {"ScoredSpanMustMeetTheReplay", "replay", "--score-from 100 $D/events.csv", WithTruth(kTruth), 2,
     "lies outside the replayed events"},
    {"RecordingShorterThanTheDefaultWarmupIsNotScored", "replay", "$D/events.csv",
     WithTruth(kTruth), 0, "shorter than the 10 s warm-up: not scored"},
    {"ShortTruthRowIsRefused", "replay", "$D/events.csv", WithTruth("t_ns,qw,qx,qy,qz\n1,1,0,0\n"),
     2, "gt.csv:2: expected 5 fields t_ns,qw,qx,qy,qz but found 4"},
    {"ZeroTruthQuaternionIsRefused", "replay", "$D/events.csv",
     WithTruth("t_ns,qw,qx,qy,qz\n1,0,0,0,0\n"), 2, "gt.csv:2: the quaternion (0, 0, 0, 0)"},
    // Arithmetic at the ends of the clock (undefined behaviour once).
    {"TimesAtBothEndsOfTheClock", "replay", "$D/events.csv",
     {{"events.csv",
       "-9223372036854775807,mag,1,2,3\n0,mag,1,2,3\n9223372036854775807,mag,1,2,3\n"},
      {"gt.csv", "t_ns,qw,qx,qy,qz\n-9223372036854775808,1,0,0,0\n9223372036854775807,1,0,0,0\n"}},
     0, "events replayed     3"},
    {"HugeTruthShiftIsRefused", "replay", "--gt-shift-ms 1e30 $D/events.csv", Events(kGood), 2,
     "--gt-shift-ms: takes milliseconds from -1e+09 to 1e+09, not '1e30'"},
    {"HugeWarmupIsRefused", "replay", "--warmup 1e30 $D/events.csv", Events(kGood), 2,
     "--warmup: takes seconds from 0 to 1e+09"},
    // Malformed lines, named and cut to a readable length.
    {"ShortRow", "replay", "$D/events.csv", Events("t_ns,sensor,x,y,z\n1,acc,0,0,9.8\n2,mag,1,2\n"),
     2, "events.csv:3: expected 5 fields t_ns,sensor,x,y,z but found 4: '2,mag,1,2'"},
    {"UnknownSensor", "replay", "$D/events.csv", Events("1,acc,0,0,9.8\n2,baro,1,2,3\n"), 2,
     "events.csv:2: column sensor: unknown sensor 'baro'"},
    {"ValueNotANumber", "replay", "$D/events.csv", Events("1,mag,1,2,3\n2,mag,1,two,3\n"), 2,
     "events.csv:2: column y 'two' is not a number"},
    {"TimeNotAnInteger", "replay", "$D/events.csv", Events("1,mag,1,2,3\n2.5,mag,1,2,3\n"), 2,
     "events.csv:2: column t_ns '2.5'"},
    {"TimeBeyondInt64", "replay", "$D/events.csv", Events("9223372036854775808,mag,1,2,3\n"), 2,
     "column t_ns '9223372036854775808'"},
    {"HugeLineIsNotEchoed", "replay", "$D/events.csv", {{"events.csv", "@long-line"}}, 2,
     "events.csv:3: line longer than 4096 bytes"},
    {"LongFieldIsCut", "replay", "$D/events.csv",
     Events("1," + std::string(3000, 'x') + ",1,2,3\n"), 2,
     "'xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx'... (3000 bytes)"},
    {"ByteOrderMarkIsSkipped", "replay", "$D/events.csv", Events("\xEF\xBB\xBF" + kGood), 0,
     "events replayed     120"},
    {"ControlBytesAreShownEscaped", "replay", "$D/events.csv", Events("1,m\x01g,1,2,3\n"), 2,
     "unknown sensor 'm\\x01g'"},
    {"CurrentWithForeignFolder", "replay", "--sysfs-root /nonexistent $D/events.csv",
     Events("1,cur,200000,0,0\n2,mag,1,2,3\n"), 2, "events.csv:1: cur events"},
    // Command-line habits.
    {"OptionEqualsValue", "replay", "--hw-gyro=1 --skip-early-gyro $D/events.csv", Events(kGood),
     0, "hwGyro 1"},
    {"Version", "replay", "--version", {}, 0, "qvn_replay "},
    {"NegativeValuesAreValues", "simulate", "--out-dir $D/sim --motion still:1 --offset -1,2,3",
     {}, 0, "wrote $D/sim/events.csv"},
    {"SetAndSetFileApplyInCommandLineOrder", "replay",
     "--list-tunables --set hdi_array[0]=1 --set-file $D/set.txt --set hdi_array[0]=3",
     {{"set.txt", "hdi_array[0]=2\n"}}, 0, "hdi_array                                float32 [3] 3 0 0"},
    {"MissingInputIsAFileProblem", "replay", "$D/none.csv", {}, 1,
     "none.csv: cannot open the file"},
    {"FolderAsInput", "replay", "$D", {}, 1, "is a directory"},
    {"UnknownTunable", "replay", "--set g_no_such_thing=1 $D/events.csv", Events(kGood), 2,
     "unknown tunable 'g_no_such_thing'"},
    {"HardwareGyroscopeFlag", "replay", "--hw-gyro 2 $D/events.csv", Events(kGood), 2,
     "--hw-gyro: takes an integer from 0 to 1, not '2'"},
    {"UnknownLogLevel", "replay", "--log-level loud $D/events.csv", Events(kGood), 2,
     "unknown --log-level 'loud'"},
    {"UnknownOption", "replay", "--hw-gyroscope 1 $D/events.csv", Events(kGood), 2,
     "--hw-gyroscope"},
    {"MissingSetFile", "replay", "--set-file $D/none.txt $D/events.csv", Events(kGood), 1,
     "--set-file: $D/none.txt: cannot open the file"},
    {"BadSetFileLine", "replay", "--set-file $D/set.txt $D/events.csv",
     {{"events.csv", kGood}, {"set.txt", "# tuned\nhdi_array[0]=1\nhdi_array[9]=1\n"}}, 2,
     "set.txt:3: tunable 'hdi_array' (float32, 3 element(s)): bad index"},
    {"ErrorsNeedATruth", "replay", "--no-truth --errors-out $D/e.csv $D/events.csv", Events(kGood),
     2, "--errors-out needs a ground truth"},
    // The simulator.
    {"SimulatedFieldNan", "simulate", "--out-dir $D/sim --field nan", {}, 2,
     "--field: takes uT from 0 to 10000, not 'nan'"},
    {"SimulatedMotionUnknown", "simulate", "--out-dir $D/sim --motion spin:3", {}, 2,
     "bad motion segment 'spin:3'"},
    {"SimulationTooLong", "simulate", "--out-dir $D/sim --motion still:1e9", {}, 2,
     "--motion lasts 1e+09 s; at most 1e+07 s"},
    {"SimulationTooManyEvents", "simulate", "--out-dir $D/sim --motion still:1e6 --rate-acc 10000",
     {}, 2, "would make 1.02e+10 events"},
    {"SimulatedChargeBeyondInt64", "simulate", "--out-dir $D/sim --charging 1,1,1e30", {}, 2,
     "does not fit 64 bits"},
    {"SimulationNeedsAFolder", "simulate", "--motion still:1", {}, 2, "--out-dir is required"},
    {"SimulationIntoADevice", "simulate", "--out-dir /dev/null --motion still:1", {}, 1,
     "cannot write /dev/null/events.csv"},
    // The tuner.
    {"TuneHelpListsEveryRecordingItem", "tune", "--help", {}, 0,
     "[,score-from=S][,score-to=S][,gt=FILE][,gt-shift-ms=MS][,warmup=S]"},
    {"TuneRangeBackwards", "tune", "--range g_quat_weight_acc_delta=1:0 --train $D/events.csv",
     WithTruth(kTruth), 2, "bad range"},
    {"TuneRangeNotIntegers", "tune", "--range g_enable_mag_moving_average=0.5:2 --train $D/events.csv",
     WithTruth(kTruth), 2, "is not an integer"},
    {"TuneUnknownTunable", "tune", "--range g_no_such_thing=0:1 --train $D/events.csv",
     WithTruth(kTruth), 2, "unknown tunable 'g_no_such_thing'"},
    {"TuneWithoutTraining", "tune", "--hw-gyro 1 --preset fusion", {}, 2, "no --train recording"},
    {"TuneSpanBackwards", "tune", "--hw-gyro 1 --preset fusion --train $D/events.csv,from=5,to=3",
     WithTruth(kTruth), 2, "needs a path and to > from"},
    {"TuneObjectiveUnknown", "tune", "--hw-gyro 1 --preset fusion --objective heading --train $D/events.csv",
     WithTruth(kTruth), 2, "bad value 'heading' for --objective"},
    {"TuneHugeTruthShift", "tune", "--hw-gyro 1 --preset fusion --train $D/events.csv,gt-shift-ms=1e30",
     WithTruth(kTruth), 2, "bad item 'gt-shift-ms=1e30'"},
    {"TuneScoredSpanOutsideTheRecording", "tune", "--hw-gyro 1 --preset fusion --train $D/events.csv",
     WithTruth(kTruth), 2, "the scored span lies outside the replayed events"},
    {"TuneMissingRecording", "tune", "--hw-gyro 1 --preset fusion --train $D/none.csv", {}, 1,
     "none.csv: cannot open the file"},
    {"TuneOutputToDevice", "tune", "--hw-gyro 1 --preset fusion --out-set /dev/full --train $D/events.csv",
     WithTruth(kTruth), 1, "cannot write /dev/full: it is a character device"},
    // The plots.
    {"PlotShortTruthRow", "plot", "--out-dir $D/png --gt $D/gt.csv $D/steps.csv",
     {{"steps.csv", "@steps"}, {"gt.csv", "t_ns,qw,qx,qy,qz\n1,1,0,0\n"}}, 2,
     "gt.csv:2: expected t_ns,qw,qx,qy,qz numbers"},
    {"PlotOverAFifo", "plot", "--out-dir $D/png $D/steps.csv",
     {{"steps.csv", "@steps"}, {"png/orientation.png", "@fifo"}}, 1,
     "png/orientation.png is not a regular file"},
    {"PlotIntoAFile", "plot", "--out-dir $D/steps.csv/png $D/steps.csv", {{"steps.csv", "@steps"}},
     1, "cannot write the figures in $D/steps.csv/png"},
};

INSTANTIATE_TEST_SUITE_P(Tools, ToolInput, ::testing::ValuesIn(kCases), qvn_test::ByName());

}  // namespace

#else
TEST(ToolInput, NeedsTheTools) { GTEST_SKIP() << "built without QVN_BUILD_TOOLS"; }
#endif
