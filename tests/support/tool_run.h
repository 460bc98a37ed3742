// Runs the built command-line tools as an integrator does, each test in a
// private temporary folder that is removed afterwards.
#ifndef QVNLIB_TESTS_SUPPORT_TOOL_RUN_H
#define QVNLIB_TESTS_SUPPORT_TOOL_RUN_H

#include <stdlib.h>
#include <sys/wait.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

namespace qvn_test {

struct ToolRun {
  int code;  // exit status, -1 when the tool did not exit normally
  std::string out, err;
};

class ToolDir : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string templ = (std::filesystem::temp_directory_path() / "qvn_tool.XXXXXX").string();
    ASSERT_NE(mkdtemp(&templ[0]), nullptr);
    dir_ = templ;
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  std::string Path(const std::string &name) const { return (dir_ / name).string(); }

  std::string Write(const std::string &name, const std::string &text) const {
    std::ofstream(Path(name)) << text;
    return Path(name);
  }

  static std::string Slurp(const std::string &path) {
    std::ifstream in(path);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
  }

  // No shell quoting beyond the tool's path: the tests' paths and values
  // need none. env is prefixed to the command (VAR=value ...).
  ToolRun Exec(const std::string &tool, const std::string &args,
               const std::string &env = "") const {
    const std::string cmd = env + " '" + tool + "' " + args + " >'" + Path("stdout") + "' 2>'" +
                            Path("stderr") + "'";
    const int status = system(cmd.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, Slurp(Path("stdout")),
            Slurp(Path("stderr"))};
  }

  std::filesystem::path dir_;
};

}  // namespace qvn_test

#endif  // QVNLIB_TESTS_SUPPORT_TOOL_RUN_H
