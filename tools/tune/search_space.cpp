// Ranges of tunables and their values at points of the unit cube.
#include "tune/search_space.h"

#include <cmath>
#include <cstdio>

#include "core/event_csv.h"

namespace qvn_tools {
namespace {

constexpr double kTwoPi = 6.283185307179586;

std::vector<std::string> Split(const std::string &s, char sep) {
  std::vector<std::string> parts;
  size_t start = 0;
  while (true) {
    size_t k = s.find(sep, start);
    parts.push_back(s.substr(start, k == std::string::npos ? std::string::npos : k - start));
    if (k == std::string::npos) return parts;
    start = k + 1;
  }
}

std::string FormatNumber(double v, bool integer) {
  char buf[48];
  if (integer) {
    std::snprintf(buf, sizeof buf, "%lld", static_cast<long long>(std::llround(v)));
  } else {
    std::snprintf(buf, sizeof buf, "%.6g", v);
  }
  return buf;
}

}  // namespace

bool ParseDimension(const std::string &text, Dimension *out, std::string *error) {
  Dimension d;
  d.text = text;
  size_t eq = text.find('=');
  if (eq == std::string::npos || eq == 0) {
    *error = "'" + text + "' is not of the form NAME=LO:HI[:log|:int] or NAME=V1|V2|...";
    return false;
  }
  d.target = text.substr(0, eq);
  std::string rhs = text.substr(eq + 1);
  std::vector<std::string> probe;
  if (rhs.find('|') != std::string::npos) {
    d.kind = Dimension::kChoice;
    d.choices = Split(rhs, '|');
    probe = d.choices;
  } else {
    std::vector<std::string> p = Split(rhs, ':');
    bool ok = (p.size() == 2 || p.size() == 3) && ParseDouble(p[0], &d.lo) &&
              ParseDouble(p[1], &d.hi) && d.lo <= d.hi;
    if (ok && p.size() == 3) {
      ok = p[2] == "log" || p[2] == "int";
      d.kind = p[2] == "log" ? Dimension::kLog : Dimension::kInteger;
    }
    if (ok && d.kind == Dimension::kLog) ok = d.lo > 0;
    if (!ok) {
      *error = "bad range '" + text + "' (LO:HI with LO <= HI, ':log' needs LO > 0)";
      return false;
    }
    probe = {ValueAt(d, 0), ValueAt(d, 1)};
  }
  // Every value the range can produce must suit the tunable's own type.
  Assignment a;
  for (const std::string &v : probe) {
    if (!ParseAssignment(d.target + "=" + v, &a, error)) return false;
  }
  if (d.kind != Dimension::kChoice && a.info->type != ScalarType::kF32)
    d.kind = Dimension::kInteger;
  *out = d;
  return true;
}

std::vector<std::string> FusionPreset() {
  return {"g_quat_weight_acc_delta=0:0.28",
          "g_quat_weight_mag_delta=0:0.297",
          "g_quat_weight_acc_normal=0.0005:0.05:log",
          "g_quat_weight_mag_normal=0.0001:0.02:log",
          "g_optimal_compensation_mode=0|1|2|3|4|5",
          "g_enable_mag_moving_average=0|1",
          "g_enable_softGyro_rv=0|1",
          "g_lpf_acc_ratio=0.05:1",
          "g_lpf_mag_ratio=0.05:1"};
}

std::string ValueAt(const Dimension &d, double u) {
  u = u < 0 ? 0 : (u > 1 ? 1 : u);
  switch (d.kind) {
    case Dimension::kChoice: {
      size_t n = d.choices.size();
      size_t k = static_cast<size_t>(u * static_cast<double>(n));
      return d.choices[k < n ? k : n - 1];
    }
    case Dimension::kLog:
      return FormatNumber(d.lo * std::pow(d.hi / d.lo, u), false);
    case Dimension::kInteger:
      // Equal shares of the cube for every whole number in the range.
      return FormatNumber(std::floor(d.lo + u * (d.hi - d.lo + 1 - 1e-9)), true);
    case Dimension::kUniform:
      break;
  }
  return FormatNumber(d.lo + u * (d.hi - d.lo), false);
}

bool Decode(const std::vector<Dimension> &dims, const std::vector<double> &unit,
            std::vector<Assignment> *out, std::string *error) {
  out->clear();
  for (size_t k = 0; k < dims.size(); ++k) {
    Assignment a;
    if (!ParseAssignment(dims[k].target + "=" + ValueAt(dims[k], unit[k]), &a, error)) return false;
    out->push_back(a);
  }
  return true;
}

double SearchRandom::Uniform() {
  uint64_t z = (state_ += 0x9E3779B97F4A7C15ULL);
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
  z ^= z >> 31;
  return static_cast<double>(z >> 11) / 9007199254740992.0;
}

double SearchRandom::Gaussian() {
  double u1 = Uniform() + 1e-300, u2 = Uniform();
  return std::sqrt(-2.0 * std::log(u1)) * std::cos(kTwoPi * u2);
}

}  // namespace qvn_tools
