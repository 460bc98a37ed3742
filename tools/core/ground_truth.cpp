// Readers of the orientation and calibration ground truth files.
#include "core/ground_truth.h"

#include <algorithm>
#include <fstream>
#include <functional>
#include <sstream>

#include "core/event_csv.h"

namespace qvn_tools {
namespace {

// Hands every line of a text file to parse(line number, text); stops at the
// first line that parse refuses. False when the file cannot be opened or a
// line was refused (parse fills in the error then).
bool ForEachLine(const std::string &path, std::string *error,
                 const std::function<bool(int, std::string &)> &parse) {
  std::ifstream in(path);
  if (!in) {
    *error = path + ": cannot open the file";
    return false;
  }
  std::string text;
  int line = 0;
  while (std::getline(in, text)) {
    if (!parse(++line, text)) return false;
  }
  return true;
}

}  // namespace

bool OrientationTruth::Load(const std::string &path, std::string *error) {
  t_.clear();
  q_.clear();
  const bool ok = ForEachLine(path, error, [&](int line, std::string &text) {
    if (text.empty() || text[0] == '#' || (line == 1 && text.compare(0, 4, "t_ns") == 0)) return true;
    std::vector<std::string> f = SplitCsvLine(text);
    int64_t t = 0;
    double v[4];
    bool fields_ok = f.size() == 5 && ParseInt64(f[0], &t);
    for (int k = 0; fields_ok && k < 4; ++k) fields_ok = ParseDouble(f[1 + k], &v[k]);
    if (!fields_ok) {
      *error = path + ":" + std::to_string(line) + ": expected t_ns,qw,qx,qy,qz";
      return false;
    }
    if (!t_.empty() && t < t_.back()) {
      *error = path + ":" + std::to_string(line) + ": time goes backwards";
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

bool OrientationTruth::At(int64_t t_ns, Quat *q, int64_t max_gap_ns) const {
  if (t_.empty() || t_ns < t_.front() || t_ns > t_.back()) return false;
  size_t hi = static_cast<size_t>(std::lower_bound(t_.begin(), t_.end(), t_ns) - t_.begin());
  if (t_[hi] == t_ns) {
    *q = q_[hi];
    return true;
  }
  size_t lo = hi - 1;  // hi > 0 since t_ns > t_.front()
  int64_t span = t_[hi] - t_[lo];
  if (span > max_gap_ns) return false;
  *q = Nlerp(q_[lo], q_[hi], static_cast<double>(t_ns - t_[lo]) / static_cast<double>(span));
  return true;
}

bool CalibrationTruth::Load(const std::string &path, std::string *error) {
  values_.clear();
  const bool ok = ForEachLine(path, error, [&](int line, std::string &text) {
    size_t hash = text.find('#');
    if (hash != std::string::npos) text.resize(hash);
    std::istringstream words(text);
    std::string key, word;
    if (!(words >> key)) return true;
    std::vector<double> v;
    while (words >> word) {
      double d = 0;
      if (!ParseDouble(word, &d)) {
        *error = path + ":" + std::to_string(line) + ": '" + word + "' is not a number";
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
    *error = path + ": offset_uT needs 3 values and soft_iron 9";
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
