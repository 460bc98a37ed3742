// Disturbance detection and the gravity-aided offset fit (field_checks.h).
#include "reference/field_checks.h"

#include <algorithm>
#include <cmath>

namespace qvn_reference {
namespace {

using Eigen::Vector3d;

constexpr double kDegPerRad = 57.29577951308232;
constexpr double kMadToSigma = 1.4826;
constexpr double kNsPerS = 1e9;
constexpr int kSteps = 30;
constexpr double kCauchyWidth = 2.385;

double Median(std::vector<double> v) {
  if (v.empty()) return 0;
  size_t k = v.size() / 2;
  std::nth_element(v.begin(), v.begin() + static_cast<std::ptrdiff_t>(k), v.end());
  return v[k];
}

double Mad(const std::vector<double> &v, double centre) {
  std::vector<double> d;
  d.reserve(v.size());
  for (double x : v) d.push_back(std::fabs(x - centre));
  return kMadToSigma * Median(d);
}

}  // namespace

Disturbances DetectDisturbances(const std::vector<TimedVec> &mag, const std::vector<Vector3d> &up,
                                const DisturbanceOptions &o) {
  Disturbances d;
  const size_t n = mag.size();
  d.disturbed.assign(n, false);
  if (n == 0 || up.size() != n) return d;
  std::vector<double> magnitude(n), dip(n);
  for (size_t i = 0; i < n; ++i) {
    magnitude[i] = mag[i].v.norm();
    dip[i] =
        magnitude[i] > 0
            ? std::asin(std::clamp(-up[i].dot(mag[i].v) / magnitude[i], -1.0, 1.0)) * kDegPerRad
            : 0;
  }
  d.steady_magnitude_ut = Median(magnitude);
  d.steady_dip_deg = Median(dip);
  d.magnitude_sigma_ut = Mad(magnitude, d.steady_magnitude_ut);
  d.dip_sigma_deg = Mad(dip, d.steady_dip_deg);
  const double lim_m = std::max(o.sigmas * d.magnitude_sigma_ut, o.magnitude_floor_ut);
  const double lim_d = std::max(o.sigmas * d.dip_sigma_deg, o.dip_floor_deg);
  std::vector<int64_t> bad;
  for (size_t i = 0; i < n; ++i) {
    if (std::fabs(magnitude[i] - d.steady_magnitude_ut) > lim_m ||
        std::fabs(dip[i] - d.steady_dip_deg) > lim_d || !std::isfinite(magnitude[i]))
      bad.push_back(mag[i].t_ns);
  }
  const int64_t pad = static_cast<int64_t>(o.pad_s * kNsPerS);
  for (size_t i = 0; i < n; ++i) {
    auto it = std::lower_bound(bad.begin(), bad.end(), mag[i].t_ns - pad);
    d.disturbed[i] = it != bad.end() && *it <= mag[i].t_ns + pad;
  }
  for (size_t i = 0; i < n; ++i) {
    if (!d.disturbed[i]) continue;
    d.count++;
    if (i > 0 && d.disturbed[i - 1]) {
      d.spans.back().second = mag[i].t_ns;
    } else {
      d.spans.push_back({mag[i].t_ns, mag[i].t_ns});
    }
  }
  return d;
}

VerticalOffsetFit FitOffsetWithVertical(const std::vector<TimedVec> &raw,
                                        const std::vector<Vector3d> &up) {
  VerticalOffsetFit f;
  const size_t n = raw.size();
  f.inlier.assign(n, false);
  if (n < 20 || up.size() != n) {
    f.error = "too few magnetometer samples";
    return f;
  }
  // Start: linear fit of the vertical relation u.raw = u.b + c (c = vertical
  // field), then B from the mean distance.
  Eigen::Matrix4d a = Eigen::Matrix4d::Zero();
  Eigen::Vector4d rhs = Eigen::Vector4d::Zero();
  for (size_t i = 0; i < n; ++i) {
    Eigen::Vector4d row(up[i].x(), up[i].y(), up[i].z(), 1.0);
    a += row * row.transpose();
    rhs += row * up[i].dot(raw[i].v);
  }
  Eigen::Vector4d s = a.ldlt().solve(rhs);
  Vector3d b = s.head<3>();
  double vz = -s[3];  // field . up = -vertical-down part; stored as B sin(dip) below
  double radius = 0;
  for (size_t i = 0; i < n; ++i) radius += (raw[i].v - b).norm();
  radius /= static_cast<double>(n);
  if (!b.allFinite() || !(radius > 0)) {
    f.error = "the up vectors do not vary: the offset is not observable";
    return f;
  }
  // Gauss-Newton with Cauchy weights on both residuals; unknowns b, B, vz.
  std::vector<double> r1(n), r2(n);
  double width = 1.0;
  for (int step = 0; step < kSteps; ++step) {
    std::vector<double> absr;
    for (size_t i = 0; i < n; ++i) {
      Vector3d d = raw[i].v - b;
      r1[i] = d.norm() - radius;
      r2[i] = up[i].dot(d) + vz;
      absr.push_back(std::fabs(r1[i]));
      absr.push_back(std::fabs(r2[i]));
    }
    width = kCauchyWidth * std::max(kMadToSigma * Median(absr), 0.05);
    Eigen::Matrix<double, 5, 5> h = Eigen::Matrix<double, 5, 5>::Zero();
    Eigen::Matrix<double, 5, 1> g = Eigen::Matrix<double, 5, 1>::Zero();
    for (size_t i = 0; i < n; ++i) {
      Vector3d d = raw[i].v - b;
      double len = d.norm();
      if (len <= 0) continue;
      Eigen::Matrix<double, 5, 1> j1, j2;
      j1 << -d / len, -1.0, 0.0;
      j2 << -up[i], 0.0, 1.0;
      double w1 = 1.0 / (1.0 + (r1[i] / width) * (r1[i] / width));
      double w2 = 1.0 / (1.0 + (r2[i] / width) * (r2[i] / width));
      h += w1 * j1 * j1.transpose() + w2 * j2 * j2.transpose();
      g += w1 * r1[i] * j1 + w2 * r2[i] * j2;
    }
    Eigen::Matrix<double, 5, 1> dx = h.ldlt().solve(-g);
    if (!dx.allFinite()) break;
    b += dx.head<3>();
    radius += dx[3];
    vz += dx[4];
    if (dx.norm() < 1e-6) break;
  }
  double sq = 0;
  size_t used = 0;
  for (size_t i = 0; i < n; ++i) {
    Vector3d d = raw[i].v - b;
    double e1 = d.norm() - radius, e2 = up[i].dot(d) + vz;
    f.inlier[i] =
        std::fabs(e1) < 3 * width / kCauchyWidth && std::fabs(e2) < 3 * width / kCauchyWidth;
    if (f.inlier[i]) sq += e1 * e1 + e2 * e2, used++;
  }
  if (!b.allFinite() || !(radius > 0) || used == 0) {
    f.error = "the offset fit did not converge";
    return f;
  }
  for (int k = 0; k < 3; ++k) f.offset[static_cast<size_t>(k)] = b[k];
  f.radius = radius;
  f.dip_deg = std::asin(std::clamp(vz / radius, -1.0, 1.0)) * kDegPerRad;
  f.residual_rms = std::sqrt(sq / (2.0 * static_cast<double>(used)));
  f.ok = true;
  return f;
}

}  // namespace qvn_reference
