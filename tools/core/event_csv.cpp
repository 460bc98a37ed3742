// Strict reader of sensor event CSV files.
#include "core/event_csv.h"

#include <cfloat>
#include <charconv>
#include <cmath>

#include <fast_float/fast_float.h>

#include "core/checked.h"

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

bool ParseInteger64(std::string_view s, int64_t *out) {
  if (!s.empty() && s[0] == '+') s.remove_prefix(1);
  if (s.empty() || s[0] == '+') return false;
  int64_t v = 0;
  auto r = std::from_chars(s.data(), s.data() + s.size(), v, 10);
  if (r.ec != std::errc() || r.ptr != s.data() + s.size()) return false;
  *out = v;
  return true;
}

bool ParseNumber(std::string_view s, double *out, bool allow_nonfinite) {
  if (!s.empty() && s[0] == '+') s.remove_prefix(1);
  if (s.empty() || s[0] == '+') return false;
  double v = 0;
  auto r = fast_float::from_chars(s.data(), s.data() + s.size(), v);
  // fast_float rounds a value beyond double to infinity: a finite spelling
  // that is not a finite number.
  if (r.ec != std::errc() || r.ptr != s.data() + s.size()) return false;
  if (!allow_nonfinite && !std::isfinite(v)) return false;
  *out = v;
  return true;
}

bool ParseInt64(const std::string &s, int64_t *out) { return ParseInteger64(s, out); }

bool ParseDouble(const std::string &s, double *out) { return ParseNumber(s, out, false); }

namespace {

bool ParseSensor(std::string_view s, Sensor *out) {
  static const Sensor kAll[] = {Sensor::kAcc, Sensor::kGyr, Sensor::kMag, Sensor::kCur};
  for (Sensor k : kAll) {
    if (s == SensorName(k)) {
      *out = k;
      return true;
    }
  }
  return false;
}

std::string_view Trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r')) s.remove_suffix(1);
  return s;
}

// Splits into at most max fields; returns the number of fields found
// (counting past max).
size_t SplitFields(std::string_view line, std::string_view *fields, size_t max) {
  size_t n = 0, start = 0;
  while (true) {
    size_t comma = line.find(',', start);
    std::string_view f = line.substr(start, comma == std::string_view::npos ? line.npos : comma - start);
    if (n < max) fields[n] = Trim(f);
    ++n;
    if (comma == std::string_view::npos) return n;
    start = comma + 1;
  }
}

}  // namespace

bool EventReader::Open(const std::string &path, const EventCsvOptions &options,
                       std::string *error) {
  options_ = options;
  return in_.Open(path, error);
}

void EventReader::OpenMemory(const char *data, size_t size, const std::string &name,
                             const EventCsvOptions &options) {
  options_ = options;
  in_.OpenMemory(data, size, name);
}

bool EventReader::Fail(const std::string &message) {
  error_ = in_.Where() + message;
  return false;
}

bool EventReader::Next(Event *out) {
  static const char *const kColumns[] = {"t_ns", "sensor", "x", "y", "z"};
  std::string_view text;
  while (in_.Next(&text)) {
    std::string_view t = Trim(text);
    if (t.empty() || t[0] == '#') continue;
    if (in_.line() == 1 && t.substr(0, 4) == "t_ns") continue;  // header
    std::string_view f[5];
    size_t n = SplitFields(t, f, 5);
    if (n != 5) {
      return Fail("expected 5 fields t_ns,sensor,x,y,z but found " + std::to_string(n) + ": " +
                  Quoted(text, 80));
    }
    Event e{};
    e.line = in_.line();
    if (!ParseInteger64(f[0], &e.t_ns)) {
      return Fail("column t_ns " + Quoted(f[0]) +
                  " is not an integer number of nanoseconds (-2^63 .. 2^63-1)");
    }
    if (!ParseSensor(f[1], &e.sensor)) {
      return Fail("column sensor: unknown sensor " + Quoted(f[1]) +
                  " (expected acc, gyr, mag or cur)");
    }
    double *values[] = {&e.x, &e.y, &e.z};
    for (int k = 0; k < 3; ++k) {
      auto bad = [&](const char *why) {
        return Fail(std::string("column ") + kColumns[2 + k] + " " + Quoted(f[2 + k]) + why);
      };
      if (!ParseNumber(f[2 + k], values[k], true)) return bad(" is not a number");
      // A current is written to the power-supply file as an integer; y and z
      // of a cur event are not used.
      if (e.sensor == Sensor::kCur) {
        if (k == 0 && !FitsInt64(e.x)) return bad(": a cur value must fit a 64-bit integer");
        continue;
      }
      if (options_.allow_nonfinite) continue;
      if (!std::isfinite(*values[k])) {
        return bad(" is not a finite number (--allow-nonfinite passes such values on)");
      }
      if (std::fabs(*values[k]) > FLT_MAX) {
        return bad(" is beyond the float32 range the library takes (|value| <= 3.4e38)");
      }
    }
    if (count_ > 0 && e.t_ns < last_t_ && !options_.allow_unsorted) {
      return Fail("column t_ns: time " + std::to_string(e.t_ns) + " ns is earlier than line " +
                  std::to_string(last_line_) + " (" + std::to_string(last_t_) +
                  " ns): events must be in time order");
    }
    last_t_ = e.t_ns;
    last_line_ = e.line;
    ++count_;
    *out = e;
    return true;
  }
  if (!in_.error().empty()) error_ = in_.error();
  return false;
}

bool ReadEventCsv(const std::string &path, const EventCsvOptions &options,
                  std::vector<Event> *events, std::string *error) {
  events->clear();
  EventReader reader;
  if (!reader.Open(path, options, error)) return false;
  Event e;
  while (reader.Next(&e)) events->push_back(e);
  if (reader.error().empty() && events->empty()) {
    *error = path + ": no events (the file is empty or holds only a header and comments)";
  } else if (!reader.error().empty()) {
    *error = reader.error();
  } else {
    return true;
  }
  events->clear();
  return false;
}

bool ReadEventCsv(const std::string &path, std::vector<Event> *events, std::string *error) {
  return ReadEventCsv(path, EventCsvOptions(), events, error);
}

}  // namespace qvn_tools
