// Bit-exact golden replays: a fixed simulated recording through the public
// table, every output's bits folded into a running digest, and every tenth
// step written out in full. Any numeric change shows up as a diff of the
// committed files, to be reviewed and regenerated deliberately with
//   QVN_UPDATE_GOLDEN=1 ctest -R Golden
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <fstream>
#include <sstream>
#include <string>

#include <android/log.h>
#include <gtest/gtest.h>

#include "support/fnv1a.h"
#include "support/replay.h"
#include "support/synthetic.h"

namespace {

constexpr int kFullLineEvery = 10;

void AddFloat(std::ostringstream &line, qvn_test::Fnv1a &d, float f) {
  const uint32_t b = qvn_test::Bits(f);
  d.U32(b);
  char hex[10];
  snprintf(hex, sizeof hex, " %08x", b);
  line << hex;
}

std::string Render(int8_t hw_gyro) {
  __android_log_set_minimum_priority(ANDROID_LOG_SILENT);
  qvn_test::MotionPlan plan;
  plan.seconds = 24.0;
  const std::vector<qvn_test::SimEvent> events = qvn_test::SimulateMotion(plan);
  std::ostringstream all;
  qvn_test::Fnv1a digest;
  int step = 0;
  qvn_test::ReplayThroughTable(events, hw_gyro, [&](const qvn_test::StepOutputs &o) {
    std::ostringstream line;
    line << step << " t=" << o.cali.timestamp << " acc=" << int(o.cali.accuracy) << " |";
    const float cali[] = {o.cali.x, o.cali.y, o.cali.z, o.cali.bias_x, o.cali.bias_y, o.cali.bias_z};
    for (float f : cali) AddFloat(line, digest, f);
    for (const FusionEvent &e : o.fusion) {
      line << " |" << int(e.accuracy);
      digest.U64(static_cast<uint64_t>(e.timestamp));
      for (float f : e.values) AddFloat(line, digest, f);
    }
    if (step % kFullLineEvery == 0) {
      char d[24];
      snprintf(d, sizeof d, " #%016llx", static_cast<unsigned long long>(digest.value()));
      all << line.str() << d << "\n";
    }
    ++step;
  });
  char d[40];
  snprintf(d, sizeof d, "final %d #%016llx\n", step, static_cast<unsigned long long>(digest.value()));
  all << d;
  return all.str();
}

void CompareWithGolden(const std::string &got, const std::string &name) {
  const std::string path = std::string(QVN_SOURCE_DIR) + "/tests/golden/" + name;
  const char *update = getenv("QVN_UPDATE_GOLDEN");
  if (update != nullptr && strcmp(update, "1") == 0) {
    std::ofstream(path) << got;
    GTEST_SKIP() << "golden file rewritten: " << path;
  }
  std::ifstream in(path);
  ASSERT_TRUE(in.good()) << "missing " << path << " (generate with QVN_UPDATE_GOLDEN=1)";
  std::stringstream want;
  want << in.rdbuf();
  if (want.str() == got) return;
  std::istringstream a(want.str()), b(got);
  std::string la, lb;
  int n = 0;
  while (std::getline(a, la) && std::getline(b, lb)) {
    ++n;
    if (la != lb) {
      FAIL() << name << " differs first at line " << n << "\n want: " << la << "\n  got: " << lb;
    }
  }
  FAIL() << name << " differs in length";
}

TEST(GoldenReplay, WithHardwareGyroscope) { CompareWithGolden(Render(1), "replay_hw_gyro.txt"); }

TEST(GoldenReplay, WithoutGyroscope) { CompareWithGolden(Render(0), "replay_no_gyro.txt"); }

}  // namespace
