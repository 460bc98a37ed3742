// The tunables a search may change, each with its range, and the mapping of
// a point of the unit cube onto values.
//
//   NAME=LO:HI        float (or integer) range, uniform
//   NAME=LO:HI:log    log-uniform (LO > 0)
//   NAME=LO:HI:int    whole numbers from LO to HI
//   NAME=V1|V2|...    one of the listed values
// NAME may carry an element index (NAME[i]) like --set.
#ifndef QVNLIB_TOOLS_TUNE_SEARCH_SPACE_H
#define QVNLIB_TOOLS_TUNE_SEARCH_SPACE_H

#include <cstdint>
#include <string>
#include <vector>

#include "core/tunables.h"

namespace qvn_tools {

struct Dimension {
  enum Kind { kUniform, kLog, kInteger, kChoice } kind = kUniform;
  std::string target;  // NAME or NAME[i]
  double lo = 0, hi = 0;
  std::vector<std::string> choices;
  std::string text;  // as given
};

// Parses one range; on failure says why (naming the tunable).
bool ParseDimension(const std::string &text, Dimension *out, std::string *error);

// The ranges of the fusion preset: weight ramp deltas, normal correction
// weights, compensation mode, moving average, rotation vector source and the
// soft gyroscope's smoothing ratios.
std::vector<std::string> FusionPreset();

// Value text of dimension d at unit coordinate u in [0, 1].
std::string ValueAt(const Dimension &d, double u);

// Assignments of a point of the unit cube (one coordinate per dimension).
bool Decode(const std::vector<Dimension> &dims, const std::vector<double> &unit,
            std::vector<Assignment> *out, std::string *error);

// Deterministic numbers for the search (splitmix64): the same on every platform.
class SearchRandom {
 public:
  explicit SearchRandom(uint64_t seed) : state_(seed) {}
  double Uniform();   // [0, 1)
  double Gaussian();  // standard normal (Box-Muller)

 private:
  uint64_t state_;
};

}  // namespace qvn_tools

#endif  // QVNLIB_TOOLS_TUNE_SEARCH_SPACE_H
