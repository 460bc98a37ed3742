// Sensor event CSV files: "t_ns,sensor,x,y,z", one event a line.
//
// sensor is acc (m/s^2), gyr (rad/s), mag (uT) or cur (battery current as
// the power-supply file reports it, in x; y and z are ignored). A first line
// that starts with "t_ns" is a header; empty lines and lines starting with '#'
// are skipped; a UTF-8 byte-order mark is skipped. Values must be finite and
// fit the float32 the library takes, a cur value the 64-bit integer it is
// written as, and times must not go back, unless the options say otherwise.
// The first bad line stops the reading with a message naming the file, line,
// column and value.
#ifndef QVNLIB_TOOLS_CORE_EVENT_CSV_H
#define QVNLIB_TOOLS_CORE_EVENT_CSV_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "core/text_input.h"

namespace qvn_tools {

enum class Sensor { kAcc, kGyr, kMag, kCur };

struct Event {
  int64_t t_ns;
  Sensor sensor;
  double x, y, z;
  int line;  // 1-based line in the file, for messages
};

const char *SensorName(Sensor s);

// Splits one CSV line at commas, trimming blanks and a trailing '\r'.
std::vector<std::string> SplitCsvLine(const std::string &line);

// Strict number parsing: the whole field must be the number. ParseDouble
// takes finite values only (options, ranges, truth files); ParseNumber also
// takes nan and inf when allow_nonfinite is set. Decimal only, an optional
// sign, no blanks.
bool ParseInt64(const std::string &s, int64_t *out);
bool ParseDouble(const std::string &s, double *out);
bool ParseNumber(std::string_view s, double *out, bool allow_nonfinite);
bool ParseInteger64(std::string_view s, int64_t *out);

struct EventCsvOptions {
  // Values that are not finite or beyond float32 go to the library as they
  // stand (for robustness tests). A cur value must fit int64 regardless.
  bool allow_nonfinite = false;
  // Times that go back are accepted (and left in file order).
  bool allow_unsorted = false;
};

// Reads an event file one event at a time: memory stays the same whatever
// the file's size.
class EventReader {
 public:
  bool Open(const std::string &path, const EventCsvOptions &options, std::string *error);
  void OpenMemory(const char *data, size_t size, const std::string &name,
                  const EventCsvOptions &options);
  // The next event; false at the end or at the first bad line (error() says
  // which; it stays empty at a clean end).
  bool Next(Event *e);
  const std::string &error() const { return error_; }
  size_t count() const { return count_; }  // events returned so far
  const LineReader &input() const { return in_; }

 private:
  bool Fail(const std::string &message);

  LineReader in_;
  EventCsvOptions options_;
  std::string error_;
  size_t count_ = 0;
  int64_t last_t_ = 0;
  int last_line_ = 0;
};

// Reads path into events. On failure returns false with "<path>:<line>: ..."
// in *error and leaves events empty. A file without any event is refused.
bool ReadEventCsv(const std::string &path, std::vector<Event> *events, std::string *error);
bool ReadEventCsv(const std::string &path, const EventCsvOptions &options,
                  std::vector<Event> *events, std::string *error);

extern const char kEventCsvHeader[];  // "t_ns,sensor,x,y,z"

}  // namespace qvn_tools

#endif  // QVNLIB_TOOLS_CORE_EVENT_CSV_H
