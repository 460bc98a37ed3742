// The library's own references bind to its own definitions: a host that
// exports a function and variables under the library's names (linked with
// -rdynamic) gets the same output bits as a plain host, and its function is
// never called; a host that writes variables through dlsym still changes what
// the library computes.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace {

std::string RunHost(const std::string &host, const char *mode) {
  // The colliding names are the point: the address sanitizer's one-definition
  // check (in the sanitizer build) would report them before the host runs.
  std::string cmd = "ASAN_OPTIONS=detect_odr_violation=0 " + host + " " QVN_LIB_PATH " " + mode +
                    " 2>/dev/null";
  FILE *p = popen(cmd.c_str(), "r");
  if (p == nullptr) return "popen failed";
  std::string out;
  char buf[256];
  while (std::fgets(buf, sizeof buf, p) != nullptr) out += buf;
  int status = pclose(p);
  if (status != 0) out += " [exit " + std::to_string(status) + "]";
  return out;
}

TEST(SymbolBinding, CollidingHostGetsTheCleanHostsBits) {
  std::string clean = RunHost(QVN_CLEAN_HOST, "");
  std::string colliding = RunHost(QVN_COLLIDING_HOST, "");
  // The movement calibrates (accuracy above 0) in the clean host.
  ASSERT_NE(clean.find("calls 0 offset"), std::string::npos) << clean;
  ASSERT_EQ(clean.find("acc 0"), std::string::npos) << clean;
  EXPECT_EQ(colliding, clean);
}

TEST(SymbolBinding, WritesByNameReachTheLibrary) {
  for (const char *host : {QVN_CLEAN_HOST, QVN_COLLIDING_HOST}) {
    EXPECT_EQ(RunHost(host, "tunables"), "offset 12.500 lowpass 0.000 0.000 0.000\n") << host;
  }
}

}  // namespace
