// Smoke test of the plot command: a replay output with its attempts, offset
// quality and per-step errors becomes four non-empty PNG files of the
// documented size. Pixels are not compared.
#include <stdint.h>

#include <string>

#include "support/tool_run.h"

#if defined(QVN_REPLAY_TOOL) && defined(QVN_SIMULATE_TOOL) && defined(QVN_PLOT_TOOL)

namespace {

constexpr uint32_t kWidthPx = 1500;
constexpr uint32_t kHeightPx = 1000;
constexpr int kPlotUnavailable = 3;  // the wrapper's exit code without matplotlib

uint32_t BigEndian32(const unsigned char *p) {
  return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
}

using PlotTool = qvn_test::ToolDir;

TEST_F(PlotTool, WritesEveryFigureAtTheDocumentedSize) {
  const std::string sim = Path("sim"), steps = Path("steps.csv"), errors = Path("errors.csv");
  ASSERT_EQ(Exec(QVN_SIMULATE_TOOL, "--out-dir " + sim + " --motion still:1,figure8:8").code, 0);
  // Attempts and quality beside the steps, where the plot looks for them.
  ASSERT_EQ(Exec(QVN_REPLAY_TOOL, "--no-summary --out " + steps + " --warmup 2 --errors-out " +
                                      errors + " --attempts-out " + Path("attempts.csv") +
                                      " --quality-out " + Path("quality.csv") + " " + sim +
                                      "/events.csv")
                .code,
            0);
  const int code = Exec(QVN_PLOT_TOOL, "--out-dir " + Path("png") + " --events " + sim +
                                           "/events.csv --errors " + errors + " " + steps)
                       .code;
  if (code == kPlotUnavailable) {
    GTEST_SKIP() << "matplotlib is not installed (apt-get install python3-matplotlib)";
  }
  ASSERT_EQ(code, 0);
  for (const char *name :
       {"field_clouds.png", "field_accuracy.png", "orientation.png", "errors.png"}) {
    const std::string png = Slurp(Path("png/") + name);
    ASSERT_GT(png.size(), 10000u) << name << " is missing or looks empty";
    // PNG signature, then the IHDR chunk with width and height.
    const unsigned char *head = reinterpret_cast<const unsigned char *>(png.data());
    EXPECT_EQ(png.substr(1, 3), "PNG") << name;
    EXPECT_EQ(png.substr(12, 4), "IHDR") << name;
    EXPECT_EQ(BigEndian32(head + 16), kWidthPx) << name;
    EXPECT_EQ(BigEndian32(head + 20), kHeightPx) << name;
  }
}

}  // namespace

#else
TEST(PlotTool, NeedsTheTools) { GTEST_SKIP() << "built without QVN_BUILD_TOOLS"; }
#endif
