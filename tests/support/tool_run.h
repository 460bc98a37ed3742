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
#include <vector>

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

  // Rows of a CSV as fields, the header dropped (and kept in *header).
  static std::vector<std::vector<std::string>> Rows(const std::string &path,
                                                    std::string *header = nullptr) {
    std::ifstream in(path);
    std::vector<std::vector<std::string>> rows;
    std::string line, cell;
    std::getline(in, line);
    if (header != nullptr) *header = line;
    while (std::getline(in, line)) {
      std::stringstream s(line);
      rows.emplace_back();
      while (std::getline(s, cell, ',')) rows.back().push_back(cell);
    }
    return rows;
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

// A short, well-formed recording: accelerometer, gyroscope and magnetometer
// at 50 Hz from 1 s, the field stepping through seven values.
inline std::string Recording(int steps) {
  std::string csv = "t_ns,sensor,x,y,z\n";
  for (int i = 0; i < steps; ++i) {
    const std::string t = std::to_string(1000000000LL + 20000000LL * i);
    csv += t + ",acc,0.1,0.2,9.8\n" + t + ",gyr,0.01,0,0\n" + t + ",mag," +
           std::to_string(20 + i % 7) + ",-5.5,40.25\n";
  }
  return csv;
}

}  // namespace qvn_test

#endif  // QVNLIB_TESTS_SUPPORT_TOOL_RUN_H
