// Captures the library's log lines for assertions.
//
// Installs a logger on the real Android log library and lowers its minimum
// priority so DEBUG lines arrive too. One capture per process (each CTest case
// runs in a fresh process); the previous logger is not restored.
#ifndef QVNLIB_TESTS_SUPPORT_LOG_CAPTURE_H
#define QVNLIB_TESTS_SUPPORT_LOG_CAPTURE_H

#include <string>
#include <vector>

namespace qvn_test {

struct LogLine {
  int priority;
  std::string text;
};

class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  const std::vector<LogLine> &lines() const;
  void Clear();
  // Number of captured lines whose text contains needle.
  int Count(const std::string &needle) const;
  // Number of captured lines whose text equals text exactly.
  int CountExact(const std::string &text) const;
  // First line containing needle, or nullptr.
  const LogLine *Find(const std::string &needle) const;
};

}  // namespace qvn_test

#endif  // QVNLIB_TESTS_SUPPORT_LOG_CAPTURE_H
