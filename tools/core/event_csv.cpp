// Strict reader and writer of sensor event CSV files.
#include "core/event_csv.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <fstream>

namespace qvn_tools {

const char kEventCsvHeader[] = "t_ns,sensor,x,y,z";

const char *SensorName(Sensor s) {
  switch (s) {
    case Sensor::kAcc:
      return "acc";
    case Sensor::kGyr:
      return "gyr";
    case Sensor::kMag:
      return "mag";
    case Sensor::kCur:
      return "cur";
  }
  return "?";
}

std::vector<std::string> SplitCsvLine(const std::string &line) {
  std::vector<std::string> fields;
  size_t start = 0;
  while (true) {
    size_t comma = line.find(',', start);
    std::string f =
        line.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
    size_t a = f.find_first_not_of(" \t\r");
    size_t b = f.find_last_not_of(" \t\r");
    fields.push_back(a == std::string::npos ? std::string() : f.substr(a, b - a + 1));
    if (comma == std::string::npos) break;
    start = comma + 1;
  }
  return fields;
}

bool ParseInt64(const std::string &s, int64_t *out) {
  if (s.empty()) return false;
  char *end = nullptr;
  errno = 0;
  long long v = std::strtoll(s.c_str(), &end, 10);
  if (*end != '\0' || end == s.c_str() || errno == ERANGE) return false;
  *out = static_cast<int64_t>(v);
  return true;
}

bool ParseDouble(const std::string &s, double *out) {
  if (s.empty()) return false;
  char *end = nullptr;
  double v = std::strtod(s.c_str(), &end);
  if (*end != '\0' || end == s.c_str()) return false;
  *out = v;
  return true;
}

namespace {

bool ParseSensor(const std::string &s, Sensor *out) {
  static const Sensor kAll[] = {Sensor::kAcc, Sensor::kGyr, Sensor::kMag, Sensor::kCur};
  for (Sensor k : kAll) {
    if (s == SensorName(k)) {
      *out = k;
      return true;
    }
  }
  return false;
}

std::string Where(const std::string &path, int line) {
  return path + ":" + std::to_string(line) + ": ";
}

}  // namespace

bool ReadEventCsv(const std::string &path, std::vector<Event> *events, std::string *error) {
  events->clear();
  std::ifstream in(path);
  if (!in) {
    *error = path + ": cannot open the file";
    return false;
  }
  static const char *const kColumns[] = {"t_ns", "sensor", "x", "y", "z"};
  std::string text;
  int line = 0;
  while (std::getline(in, text)) {
    ++line;
    if (!text.empty() && text.back() == '\r') text.pop_back();
    if (text.find_first_not_of(" \t") == std::string::npos || text[0] == '#') continue;
    if (line == 1 && text.compare(0, 4, "t_ns") == 0) continue;  // header
    std::vector<std::string> f = SplitCsvLine(text);
    if (f.size() != 5) {
      *error = Where(path, line) + "expected 5 fields t_ns,sensor,x,y,z but found " +
               std::to_string(f.size()) + ": '" + text + "'";
      events->clear();
      return false;
    }
    Event e{};
    e.line = line;
    if (!ParseInt64(f[0], &e.t_ns)) {
      *error = Where(path, line) + "t_ns '" + f[0] + "' is not an integer number of nanoseconds";
      events->clear();
      return false;
    }
    if (!ParseSensor(f[1], &e.sensor)) {
      *error = Where(path, line) + "unknown sensor '" + f[1] + "' (expected acc, gyr, mag or cur)";
      events->clear();
      return false;
    }
    double *values[] = {&e.x, &e.y, &e.z};
    for (int k = 0; k < 3; ++k) {
      if (!ParseDouble(f[2 + k], values[k])) {
        *error =
            Where(path, line) + "column " + kColumns[2 + k] + " '" + f[2 + k] + "' is not a number";
        events->clear();
        return false;
      }
    }
    events->push_back(e);
  }
  if (in.bad()) {
    *error = path + ": read error";
    events->clear();
    return false;
  }
  return true;
}

}  // namespace qvn_tools
