// Ground truth beside an event file.
//
// gt.csv: "t_ns,qw,qx,qy,qz", the true phone-to-world orientation (world =
// east, north, up), sorted by time. A reference attitude computed from the
// recording itself adds a sixth column, sigma_deg: its standard deviation.
// truth.txt: "key value..." lines written by the simulator; the replay uses
// offset_uT (3 values, raw sensor frame) and soft_iron (9 values, row-major,
// raw = soft_iron * field + offset). '#' starts a comment.
#ifndef QVNLIB_TOOLS_CORE_GROUND_TRUTH_H
#define QVNLIB_TOOLS_CORE_GROUND_TRUTH_H

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "core/geometry.h"

namespace qvn_tools {

class OrientationTruth {
 public:
  bool Load(const std::string &path, std::string *error);
  // Samples in time order (as a simulation makes them).
  void SetSamples(const std::vector<std::pair<int64_t, Quat>> &samples) {
    t_.clear();
    q_.clear();
    sigma_.clear();
    untrusted_.clear();
    for (const auto &s : samples) t_.push_back(s.first), q_.push_back(Normalized(s.second));
  }
  bool empty() const { return t_.empty(); }
  size_t size() const { return t_.size(); }
  // The samples as read (quaternions normalised), for callers that show them.
  const std::vector<int64_t> &times() const { return t_; }
  const std::vector<Quat> &quats() const { return q_; }
  // Orientation at t_ns (interpolated); false outside the covered time span
  // or across a gap longer than max_gap_ns.
  bool At(int64_t t_ns, Quat *q, int64_t max_gap_ns = 200000000) const;
  // Samples whose sigma_deg exceeds max_deg (a file without the column has
  // none) are not trusted: At() is false next to them. Returns how many.
  size_t SetMaxSigma(double max_deg);
  bool has_sigma() const { return !sigma_.empty(); }
  // Moves every truth time by delta_ns (a clock offset between the recordings).
  void Shift(int64_t delta_ns) {
    for (int64_t &t : t_) t += delta_ns;
  }

 private:
  std::vector<int64_t> t_;
  std::vector<Quat> q_;
  std::vector<double> sigma_;  // empty, or one per sample
  std::vector<bool> untrusted_;
};

class CalibrationTruth {
 public:
  bool Load(const std::string &path, std::string *error);
  // Values of key, or nullptr when absent.
  const std::vector<double> *Get(const std::string &key) const;
  bool HasOffset() const { return Get("offset_uT") != nullptr; }
  const std::map<std::string, std::vector<double>> &values() const { return values_; }

 private:
  std::map<std::string, std::vector<double>> values_;
};

}  // namespace qvn_tools

#endif  // QVNLIB_TOOLS_CORE_GROUND_TRUTH_H
