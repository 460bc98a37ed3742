// Ground truth beside an event file.
//
// gt.csv: "t_ns,qw,qx,qy,qz", the true phone-to-world orientation (world =
// east, north, up), sorted by time; finite values, not all four zero.
// truth.txt: "key value..." lines written by the simulator; the replay uses
// offset_uT (3 values, raw sensor frame) and soft_iron (9 values, row-major,
// raw = soft_iron * field + offset). '#' starts a comment. Values must be
// finite. Both readers refuse a bad line with its file, line and value.
#ifndef QVNLIB_TOOLS_CORE_GROUND_TRUTH_H
#define QVNLIB_TOOLS_CORE_GROUND_TRUTH_H

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "core/geometry.h"

namespace qvn_tools {

class LineReader;

class OrientationTruth {
 public:
  bool Load(const std::string &path, std::string *error);
  // The same from text in memory; name is used in messages.
  bool LoadText(const char *data, size_t size, const std::string &name, std::string *error);
  // Samples in time order (as a simulation makes them).
  void SetSamples(const std::vector<std::pair<int64_t, Quat>> &samples) {
    t_.clear();
    q_.clear();
    for (const auto &s : samples) t_.push_back(s.first), q_.push_back(Normalized(s.second));
  }
  bool empty() const { return t_.empty(); }
  size_t size() const { return t_.size(); }
  // First and last truth time (0 when empty).
  int64_t first_ns() const { return t_.empty() ? 0 : t_.front(); }
  int64_t last_ns() const { return t_.empty() ? 0 : t_.back(); }
  // The samples as read (quaternions normalised), for callers that show them.
  const std::vector<int64_t> &times() const { return t_; }
  const std::vector<Quat> &quats() const { return q_; }
  // Orientation at t_ns (interpolated); false outside the covered time span
  // or across a gap longer than max_gap_ns.
  bool At(int64_t t_ns, Quat *q, int64_t max_gap_ns = 200000000) const;
  // Moves every truth time by delta_ns (a clock offset between the
  // recordings), saturating at the ends of the int64 range.
  void Shift(int64_t delta_ns);

 private:
  bool Parse(LineReader *in, std::string *error);
  std::vector<int64_t> t_;
  std::vector<Quat> q_;
};

class CalibrationTruth {
 public:
  bool Load(const std::string &path, std::string *error);
  bool LoadText(const char *data, size_t size, const std::string &name, std::string *error);
  // Values of key, or nullptr when absent.
  const std::vector<double> *Get(const std::string &key) const;
  bool HasOffset() const { return Get("offset_uT") != nullptr; }
  const std::map<std::string, std::vector<double>> &values() const { return values_; }

 private:
  bool Parse(LineReader *in, std::string *error);
  std::map<std::string, std::vector<double>> values_;
};

}  // namespace qvn_tools

#endif  // QVNLIB_TOOLS_CORE_GROUND_TRUTH_H
