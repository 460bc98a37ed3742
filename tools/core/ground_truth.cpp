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
  sigma_.clear();
  untrusted_.clear();
  const bool ok = ForEachLine(path, error, [&](int line, std::string &text) {
    if (text.empty() || text[0] == '#' || (line == 1 && text.compare(0, 4, "t_ns") == 0)) return true;
    std::vector<std::string> f = SplitCsvLine(text);
    int64_t t = 0;
    double v[5];
    // The sigma column is all or nothing: its presence is set by the first row.
    const size_t want = t_.empty() ? (f.size() == 6 ? 6 : 5) : (sigma_.empty() ? 5 : 6);
    bool fields_ok = f.size() == want && ParseInt64(f[0], &t);
    for (size_t k = 0; fields_ok && k + 1 < want; ++k) fields_ok = ParseDouble(f[1 + k], &v[k]);
    if (fields_ok && want == 6) fields_ok = v[4] >= 0;  // also false for NaN
    if (!fields_ok) {
      *error = path + ":" + std::to_string(line) +
               (want == 6 ? ": expected t_ns,qw,qx,qy,qz,sigma_deg (sigma >= 0)"
                          : ": expected t_ns,qw,qx,qy,qz");
      return false;
    }
    if (want == 6) sigma_.push_back(v[4]);
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
    sigma_.clear();
  }
  return ok;
}

size_t OrientationTruth::SetMaxSigma(double max_deg) {
  untrusted_.assign(sigma_.size(), false);
  size_t n = 0;
  for (size_t i = 0; i < sigma_.size(); ++i)
    if (sigma_[i] > max_deg) untrusted_[i] = true, n++;
  return n;
}

bool OrientationTruth::At(int64_t t_ns, Quat *q, int64_t max_gap_ns) const {
  if (t_.empty() || t_ns < t_.front() || t_ns > t_.back()) return false;
  size_t hi = static_cast<size_t>(std::lower_bound(t_.begin(), t_.end(), t_ns) - t_.begin());
  if (t_[hi] == t_ns) {
    if (!untrusted_.empty() && untrusted_[hi]) return false;
    *q = q_[hi];
    return true;
  }
  size_t lo = hi - 1;  // hi > 0 since t_ns > t_.front()
  if (!untrusted_.empty() && (untrusted_[lo] || untrusted_[hi])) return false;
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
