// The library exports exactly the agreed names (tests/api/exported_names.txt,
// the integrators' list), with C linkage, and the names that share one
// routine really are one routine.
#include <dlfcn.h>
#include <stdio.h>

#include <fstream>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "qvnlib/qvnlib.h"

namespace {

std::set<std::string> RequiredNames() {
  std::set<std::string> names;
  std::ifstream in(QVN_SOURCE_DIR "/tests/api/exported_names.txt");
  std::string line;
  while (std::getline(in, line)) {
    if (!line.empty()) names.insert(line);
  }
  return names;
}

std::set<std::string> DefinedDynamicSymbols() {
  std::set<std::string> names;
  FILE *p = popen("nm -D --defined-only '" QVN_LIB_PATH "'", "r");
  if (p == nullptr) return names;
  char buf[512];
  while (fgets(buf, sizeof buf, p) != nullptr) {
    std::string s(buf);
    while (!s.empty() && (s.back() == '\n' || s.back() == '\r')) s.pop_back();
    const size_t sp = s.rfind(' ');
    const std::string name = (sp == std::string::npos) ? s : s.substr(sp + 1);
    // AddressSanitizer adds its own one-definition-rule markers for globals.
    if (name.rfind("__odr_asan", 0) == 0 || name.rfind("__asan", 0) == 0) continue;
    names.insert(name);
  }
  pclose(p);
  return names;
}

// Both ways: a missing name breaks a host, an extra or mangled one is
// surface nobody agreed to.
TEST(Exports, ExactlyTheAgreedNames) {
  const std::set<std::string> required = RequiredNames();
  const std::set<std::string> defined = DefinedDynamicSymbols();
  ASSERT_GT(required.size(), 400u);
  for (const std::string &name : required) EXPECT_EQ(defined.count(name), 1u) << "missing " << name;
  for (const std::string &name : defined) EXPECT_EQ(required.count(name), 1u) << "unexpected " << name;
}

TEST(Exports, AliasedRoutinesShareOneAddress) {
  void *lib = dlopen(QVN_LIB_PATH, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(lib, nullptr);
  EXPECT_EQ(dlsym(lib, "qvn_getGameRotationVector"), dlsym(lib, "qvn_getRotationVector"));
  EXPECT_EQ(dlsym(lib, "MagCorrection"), dlsym(lib, "AccCorrection"));
  dlclose(lib);
}

// What a sensor service does: load the library, find the table by name and
// drive a calibration step through it.
TEST(Exports, AHostFindsTheTableByNameAndCallsThroughIt) {
  void *lib = dlopen(QVN_LIB_PATH, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(lib, nullptr) << dlerror();
  const auto *api =
      static_cast<const QvnLibApiTable *>(dlsym(lib, QVNLIB_TABLE_SYMBOL));
  ASSERT_NE(api, nullptr);
  EXPECT_STREQ(api->name, "libqvnlib");
  ChipInfo info = {0, 0, 0};
  EXPECT_EQ(api->QVN_CaliInitLib(&info), 0);
  EXPECT_EQ(api->QVN_FusionEnableLib(7), 7);
  const float offset[3] = {1.5f, -2.5f, 3.0f};
  api->QVN_CaliApiSetOffset(offset);
  SensorEvent mag = {2000000000, 31.5f, -22.5f, 43.0f, 3};
  CaliResult out;
  EXPECT_EQ(api->QVN_CaliApiSetMagData(&mag), 0);
  EXPECT_EQ(api->QVN_DoCaliAPI(&mag, &out), 0);
  EXPECT_EQ(out.timestamp, 2000000000);
  EXPECT_EQ(out.bias_x, 1.5f);
  EXPECT_EQ(out.bias_z, 3.0f);
  FusionEvent e;
  EXPECT_EQ(api->QVN_FusionGetOrientation(&e), 0);
  EXPECT_EQ(e.timestamp, 2000000000);  // hwGyro 0: the calibration step ran fusion
  dlclose(lib);
}

}  // namespace
