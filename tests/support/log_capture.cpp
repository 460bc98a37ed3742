#include "support/log_capture.h"

#include <android/log.h>

namespace qvn_test {
namespace {

std::vector<LogLine> &Sink() {
  static std::vector<LogLine> lines;
  return lines;
}

void Capture(const struct __android_logger_data *data, const char *message) {
  Sink().push_back(LogLine{data->priority, message != nullptr ? message : ""});
}

}  // namespace

LogCapture::LogCapture() {
  Sink().clear();
  __android_log_set_logger(Capture);
  __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
}

LogCapture::~LogCapture() { __android_log_set_minimum_priority(ANDROID_LOG_SILENT); }

const std::vector<LogLine> &LogCapture::lines() const { return Sink(); }

void LogCapture::Clear() { Sink().clear(); }

int LogCapture::Count(const std::string &needle) const {
  int n = 0;
  for (const LogLine &l : Sink()) n += (l.text.find(needle) != std::string::npos) ? 1 : 0;
  return n;
}

int LogCapture::CountExact(const std::string &text) const {
  int n = 0;
  for (const LogLine &l : Sink()) n += (l.text == text) ? 1 : 0;
  return n;
}

const LogLine *LogCapture::Find(const std::string &needle) const {
  for (const LogLine &l : Sink()) {
    if (l.text.find(needle) != std::string::npos) return &l;
  }
  return nullptr;
}

}  // namespace qvn_test
