// Sensor event CSV files: "t_ns,sensor,x,y,z", one event a line.
//
// sensor is acc (m/s^2), gyr (rad/s), mag (uT) or cur (battery current as
// the power-supply file reports it, in x; y and z are ignored). A first line
// that starts with "t_ns" is a header; empty lines and lines starting with '#'
// are skipped. Reading is all-or-nothing: the first malformed line stops it
// with a message that names the line.
#ifndef QVNLIB_TOOLS_CORE_EVENT_CSV_H
#define QVNLIB_TOOLS_CORE_EVENT_CSV_H

#include <cstdint>
#include <string>
#include <vector>

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

// Strict number parsing: the whole field must be the number.
bool ParseInt64(const std::string &s, int64_t *out);
bool ParseDouble(const std::string &s, double *out);

// Reads path into events. On failure returns false with "<path>:<line>: ..."
// in *error and leaves events empty.
bool ReadEventCsv(const std::string &path, std::vector<Event> *events, std::string *error);

extern const char kEventCsvHeader[];  // "t_ns,sensor,x,y,z"

}  // namespace qvn_tools

#endif  // QVNLIB_TOOLS_CORE_EVENT_CSV_H
