// The library's own references bind to its own definitions: a host that
// exports a function and variables under the library's names (linked with
// -rdynamic) gets the same output bits as a plain host, and its function is
// never called; a host that writes variables through dlsym still changes what
// the library computes.
#include <gtest/gtest.h>

#include <string>

#include "support/tool_run.h"

namespace {

class SymbolBinding : public qvn_test::ToolDir {
 protected:
  // The host's output; its exit status must be 0. The colliding names are the
  // point: the address sanitizer's one-definition check (in the sanitizer
  // build) would report them before the host runs.
  std::string RunHost(const std::string &host, const std::string &mode) {
    qvn_test::ToolRun r = Exec(host, QVN_LIB_PATH " " + mode, "ASAN_OPTIONS=detect_odr_violation=0");
    EXPECT_EQ(r.code, 0) << host << " " << mode;
    return r.out;
  }
};

TEST_F(SymbolBinding, CollidingHostGetsTheCleanHostsBits) {
  std::string clean = RunHost(QVN_CLEAN_HOST, "");
  // The movement calibrates (accuracy above 0) in the clean host.
  ASSERT_NE(clean.find("calls 0 offset"), std::string::npos) << clean;
  ASSERT_EQ(clean.find("acc 0"), std::string::npos) << clean;
  EXPECT_EQ(RunHost(QVN_COLLIDING_HOST, ""), clean);
}

TEST_F(SymbolBinding, WritesByNameReachTheLibrary) {
  for (const char *host : {QVN_CLEAN_HOST, QVN_COLLIDING_HOST}) {
    EXPECT_EQ(RunHost(host, "tunables"), "offset 12.500 lowpass 0.000 0.000 0.000\n") << host;
  }
}

}  // namespace
