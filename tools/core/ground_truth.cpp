// Readers of the orientation and calibration ground truth files.
#include "core/ground_truth.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <sstream>

#include "core/checked.h"
#include "core/event_csv.h"
#include "core/text_input.h"

namespace qvn_tools {
namespace {

// Hands every line of the input to parse(text); stops at the first line that
// parse refuses (parse fills in the error then) or at a read error.
bool ForEachLine(LineReader *in, std::string *error,
                 const std::function<bool(std::string_view)> &parse) {
  std::string_view text;
  while (in->Next(&text)) {
    if (!parse(text)) return false;
  }
  if (!in->error().empty()) {
    *error = in->error();
    return false;
  }
  return true;
}

std::string_view Trimmed(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
  return s;
}

}  // namespace

bool OrientationTruth::Load(const std::string &path, std::string *error) {
  LineReader in;
  if (!in.Open(path, error)) {
    t_.clear();
    q_.clear();
    return false;
  }
  return Parse(&in, error);
}

bool OrientationTruth::LoadText(const char *data, size_t size, const std::string &name,
                                std::string *error) {
  LineReader in;
  in.OpenMemory(data, size, name);
  return Parse(&in, error);
}

bool OrientationTruth::Parse(LineReader *in, std::string *error) {
  t_.clear();
  q_.clear();
  const bool ok = ForEachLine(in, error, [&](std::string_view raw) {
    std::string_view text = Trimmed(raw);
    if (text.empty() || text[0] == '#' || (in->line() == 1 && text.substr(0, 4) == "t_ns"))
      return true;
    std::vector<std::string> f = SplitCsvLine(std::string(text));
    if (f.size() != 5) {
      *error = in->Where() + "expected 5 fields t_ns,qw,qx,qy,qz but found " +
               std::to_string(f.size()) + ": " + Quoted(text, 80);
      return false;
    }
    int64_t t = 0;
    if (!ParseInt64(f[0], &t)) {
      *error = in->Where() + "column t_ns " + Quoted(f[0]) + " is not an integer number of nanoseconds";
      return false;
    }
    static const char *const kColumns[] = {"qw", "qx", "qy", "qz"};
    double v[4];
    for (int k = 0; k < 4; ++k) {
      if (!ParseDouble(f[1 + k], &v[k])) {
        *error = in->Where() + "column " + kColumns[k] + " " + Quoted(f[1 + k]) +
                 " is not a finite number";
        return false;
      }
    }
    const double norm2 = v[0] * v[0] + v[1] * v[1] + v[2] * v[2] + v[3] * v[3];
    if (!(norm2 > 1e-12) || !std::isfinite(norm2)) {
      *error = in->Where() + "the quaternion (" + f[1] + ", " + f[2] + ", " + f[3] + ", " + f[4] +
               ") has no usable length";
      return false;
    }
    if (!t_.empty() && t < t_.back()) {
      *error = in->Where() + "column t_ns: time " + std::to_string(t) +
               " ns goes back (truth times must be in order)";
      return false;
    }
    t_.push_back(t);
    q_.push_back(Normalized({v[0], v[1], v[2], v[3]}));
    return true;
  });
  if (!ok) {
    t_.clear();
    q_.clear();
  }
  return ok;
}

void OrientationTruth::Shift(int64_t delta_ns) {
  for (int64_t &t : t_) t = SaturatingAdd(t, delta_ns);
}

bool OrientationTruth::At(int64_t t_ns, Quat *q, int64_t max_gap_ns) const {
  if (t_.empty() || t_ns < t_.front() || t_ns > t_.back()) return false;
  size_t hi = static_cast<size_t>(std::lower_bound(t_.begin(), t_.end(), t_ns) - t_.begin());
  if (t_[hi] == t_ns) {
    *q = q_[hi];
    return true;
  }
  size_t lo = hi - 1;  // hi > 0 since t_ns > t_.front()
  // t_[lo] < t_ns < t_[hi]: both differences are positive and fit uint64
  // even when the times span the whole int64 range.
  const uint64_t span = static_cast<uint64_t>(t_[hi]) - static_cast<uint64_t>(t_[lo]);
  if (max_gap_ns < 0 || span > static_cast<uint64_t>(max_gap_ns)) return false;
  const uint64_t into = static_cast<uint64_t>(t_ns) - static_cast<uint64_t>(t_[lo]);
  *q = Nlerp(q_[lo], q_[hi], static_cast<double>(into) / static_cast<double>(span));
  return true;
}

bool CalibrationTruth::Load(const std::string &path, std::string *error) {
  LineReader in;
  if (!in.Open(path, error)) {
    values_.clear();
    return false;
  }
  return Parse(&in, error);
}

bool CalibrationTruth::LoadText(const char *data, size_t size, const std::string &name,
                                std::string *error) {
  LineReader in;
  in.OpenMemory(data, size, name);
  return Parse(&in, error);
}

bool CalibrationTruth::Parse(LineReader *in, std::string *error) {
  values_.clear();
  const bool ok = ForEachLine(in, error, [&](std::string_view raw) {
    std::string text(raw.substr(0, raw.find('#')));
    std::istringstream words(text);
    std::string key, word;
    if (!(words >> key)) return true;
    std::vector<double> v;
    while (words >> word) {
      double d = 0;
      if (!ParseDouble(word, &d)) {
        *error = in->Where() + key + ": " + Quoted(word) + " is not a finite number";
        return false;
      }
      v.push_back(d);
    }
    values_[key] = v;
    return true;
  });
  if (!ok) {
    values_.clear();
    return false;
  }
  const std::vector<double> *o = Get("offset_uT");
  const std::vector<double> *m = Get("soft_iron");
  if ((o != nullptr && o->size() != 3) || (m != nullptr && m->size() != 9)) {
    *error = in->name() + ": offset_uT needs 3 values and soft_iron 9";
    values_.clear();
    return false;
  }
  return true;
}

const std::vector<double> *CalibrationTruth::Get(const std::string &key) const {
  auto it = values_.find(key);
  return it == values_.end() ? nullptr : &it->second;
}

}  // namespace qvn_tools
