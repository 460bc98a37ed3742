// The log library on its own: one finished line handed to
// __android_log_write, the way the library now writes each line, with the
// line dropped by a discarding logger or written by the log library's own
// writer into /dev/null; and the same line formatted by
// __android_log_print, as the library wrote it before. Together with the
// line counts of the steps, these split a step's cost with the log on into
// the library's part and the log library's part.
#include <android/log.h>

#include "bench_support.h"

namespace qvn_bench {
namespace {

constexpr char kLine[] = "QVNlib: hdi[x,y,z]: -52.250000,-40.125000,-270.500000\r\n";

void SetupDropped() { ResetLibrary(2, Log::kDropped, CurrentFile::kPresent); }
void SetupWritten() { ResetLibrary(2, Log::kWritten, CurrentFile::kPresent); }
void RunWrite() { __android_log_write(ANDROID_LOG_DEBUG, nullptr, kLine); }
void RunPrint() {
  __android_log_print(ANDROID_LOG_DEBUG, nullptr, "QVNlib: hdi[x,y,z]: %f,%f,%f\r\n", -52.25,
                      -40.125, -270.5);
}

}  // namespace

std::vector<Operation> LogOperations() {
  return {
      {"log_line/write/log_dropped", "-", SetupDropped, nullptr, RunWrite},
      {"log_line/write/log_written", "-", SetupWritten, nullptr, RunWrite},
      {"log_line/print/log_dropped", "-", SetupDropped, nullptr, RunPrint},
      {"log_line/print/log_written", "-", SetupWritten, nullptr, RunPrint},
  };
}

}  // namespace qvn_bench
