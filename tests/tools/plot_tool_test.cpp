// Smoke test of the plot command: a replay output and its per-step errors
// become four non-empty PNG files of the documented size. Pixels are not compared.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#if defined(QVN_REPLAY_TOOL) && defined(QVN_SIMULATE_TOOL) && defined(QVN_PLOT_TOOL)

namespace {

namespace fs = std::filesystem;

constexpr uint32_t kWidthPx = 1500;
constexpr uint32_t kHeightPx = 1000;
constexpr int kPlotUnavailable = 3;  // the wrapper's exit code without matplotlib

uint32_t BigEndian32(const unsigned char *p) {
  return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
}

int Exec(const std::string &cmd) {
  int status = std::system(cmd.c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(PlotTool, WritesEveryFigureAtTheDocumentedSize) {
  std::string templ = (fs::temp_directory_path() / "qvn_plot_test.XXXXXX").string();
  ASSERT_NE(mkdtemp(&templ[0]), nullptr);
  fs::path dir = templ;
  const std::string sim = (dir / "sim").string(), steps = (dir / "steps.csv").string();
  ASSERT_EQ(Exec(std::string("'") + QVN_SIMULATE_TOOL + "' --out-dir " + sim +
                 " --motion still:1,figure8:8 >/dev/null"),
            0);
  const std::string errors = (dir / "errors.csv").string();
  ASSERT_EQ(Exec(std::string("'") + QVN_REPLAY_TOOL + "' --no-summary --out " + steps +
                 " --warmup 2 --errors-out " + errors + " " + sim + "/events.csv"),
            0);
  int code = Exec(std::string("'") + QVN_PLOT_TOOL + "' --out-dir " + (dir / "png").string() +
                  " --events " + sim + "/events.csv --errors " + errors + " " + steps + " >/dev/null");
  if (code == kPlotUnavailable) {
    fs::remove_all(dir);
    GTEST_SKIP() << "matplotlib is not installed (apt-get install python3-matplotlib)";
  }
  ASSERT_EQ(code, 0);
  for (const char *name :
       {"field_clouds.png", "field_accuracy.png", "orientation.png", "errors.png"}) {
    fs::path png = dir / "png" / name;
    ASSERT_TRUE(fs::exists(png)) << png;
    std::ifstream in(png, std::ios::binary);
    unsigned char head[24] = {};
    in.read(reinterpret_cast<char *>(head), sizeof head);
    // PNG signature, then the IHDR chunk with width and height.
    EXPECT_EQ(std::string(reinterpret_cast<char *>(head) + 1, 3), "PNG") << name;
    EXPECT_EQ(std::string(reinterpret_cast<char *>(head) + 12, 4), "IHDR") << name;
    EXPECT_EQ(BigEndian32(head + 16), kWidthPx) << name;
    EXPECT_EQ(BigEndian32(head + 20), kHeightPx) << name;
    EXPECT_GT(fs::file_size(png), 10000u) << name << " looks empty";
  }
  fs::remove_all(dir);
}

}  // namespace

#else
TEST(PlotTool, NeedsTheTools) { GTEST_SKIP() << "built without QVN_BUILD_TOOLS"; }
#endif
