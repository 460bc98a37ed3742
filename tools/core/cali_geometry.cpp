// Least-squares spheres and direction coverage (see the header).
#include "core/cali_geometry.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace qvn_tools {
namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kMadToSigma = 1.4826;  // median absolute deviation of a normal law -> sigma
constexpr double kOutlierSigmas = 3.0;

// Solves the 4 x 4 system a x = b by Gaussian elimination with partial
// pivoting; false when a pivot vanishes against the matrix's scale.
bool Solve4(double a[4][4], double b[4], double x[4]) {
  double scale = 0;
  for (int i = 0; i < 4; ++i)
    for (int j = 0; j < 4; ++j) scale = std::max(scale, std::fabs(a[i][j]));
  if (!(scale > 0) || !std::isfinite(scale)) return false;
  for (int c = 0; c < 4; ++c) {
    int p = c;
    for (int r = c + 1; r < 4; ++r)
      if (std::fabs(a[r][c]) > std::fabs(a[p][c])) p = r;
    if (std::fabs(a[p][c]) <= 1e-12 * scale) return false;
    if (p != c) {
      for (int j = 0; j < 4; ++j) std::swap(a[p][j], a[c][j]);
      std::swap(b[p], b[c]);
    }
    for (int r = c + 1; r < 4; ++r) {
      double f = a[r][c] / a[c][c];
      for (int j = c; j < 4; ++j) a[r][j] -= f * a[c][j];
      b[r] -= f * b[c];
    }
  }
  for (int r = 3; r >= 0; --r) {
    double s = b[r];
    for (int j = r + 1; j < 4; ++j) s -= a[r][j] * x[j];
    x[r] = s / a[r][r];
  }
  return true;
}

double Median(std::vector<double> v) {
  if (v.empty()) return 0;
  size_t k = v.size() / 2;
  std::nth_element(v.begin(), v.begin() + static_cast<std::ptrdiff_t>(k), v.end());
  return v[k];
}

SphereFit FitSelected(const std::vector<V3> &points, const std::vector<bool> *keep) {
  SphereFit fit;
  // Centred on the mean first: the normal equations of samples 400 uT away
  // from the origin lose most of their digits otherwise.
  V3 mean{0, 0, 0};
  size_t n = 0;
  for (size_t i = 0; i < points.size(); ++i) {
    if (keep != nullptr && !(*keep)[i]) continue;
    mean = mean + points[i];
    n++;
  }
  if (n < 4) return fit;
  mean = (1.0 / static_cast<double>(n)) * mean;
  double a[4][4] = {}, b[4] = {}, p[4], a0[4][4];
  for (size_t i = 0; i < points.size(); ++i) {
    if (keep != nullptr && !(*keep)[i]) continue;
    V3 d = points[i] - mean;
    double row[4] = {d.x, d.y, d.z, 1.0}, r2 = Dot(d, d);
    for (int j = 0; j < 4; ++j) {
      for (int k = 0; k < 4; ++k) a[j][k] += row[j] * row[k];
      b[j] += row[j] * r2;
    }
  }
  std::memcpy(a0, a, sizeof a0);
  if (!Solve4(a, b, p)) return fit;
  V3 c{0.5 * p[0], 0.5 * p[1], 0.5 * p[2]};
  double r2 = p[3] + Dot(c, c);
  if (!(r2 > 0) || !std::isfinite(r2)) return fit;
  fit.ok = true;
  fit.centre = c + mean;
  fit.radius = std::sqrt(r2);
  fit.used = n;
  double ss = 0;
  for (size_t i = 0; i < points.size(); ++i) {
    if (keep != nullptr && !(*keep)[i]) continue;
    double e = Norm(points[i] - fit.centre) - fit.radius;
    ss += e * e;
  }
  fit.residual_rms = std::sqrt(ss / static_cast<double>(n));
  // Covariance of p: s2 (A'A)^-1 with s2 the variance of the equations'
  // residuals; the centre is p/2.
  double s2 = 0;
  for (size_t i = 0; i < points.size(); ++i) {
    if (keep != nullptr && !(*keep)[i]) continue;
    V3 d = points[i] - mean;
    double e = 2 * Dot(c, d) + (r2 - Dot(c, c)) - Dot(d, d);
    s2 += e * e;
  }
  s2 /= static_cast<double>(n > 4 ? n - 4 : 1);
  double se[3];
  for (int j = 0; j < 3; ++j) {
    double m[4][4], e[4] = {0, 0, 0, 0}, col[4];
    std::memcpy(m, a0, sizeof m);
    e[j] = 1;
    se[j] = Solve4(m, e, col) ? 0.5 * std::sqrt(std::max(0.0, s2 * col[j])) : INFINITY;
  }
  fit.centre_se = {se[0], se[1], se[2]};
  return fit;
}

}  // namespace

SphereFit FitSphere(const std::vector<V3> &points) { return FitSelected(points, nullptr); }

SphereFit FitSphereRobust(const std::vector<V3> &points, int passes, double floor_ut) {
  SphereFit fit = FitSelected(points, nullptr);
  std::vector<bool> keep(points.size(), true);
  for (int pass = 0; pass < passes && fit.ok; ++pass) {
    std::vector<double> dev(points.size());
    for (size_t i = 0; i < points.size(); ++i)
      dev[i] = std::fabs(Norm(points[i] - fit.centre) - fit.radius);
    double limit = std::max(kOutlierSigmas * kMadToSigma * Median(dev), floor_ut);
    size_t changed = 0;
    for (size_t i = 0; i < points.size(); ++i) {
      bool k = dev[i] <= limit;
      changed += k != keep[i];
      keep[i] = k;
    }
    if (changed == 0) break;
    SphereFit next = FitSelected(points, &keep);
    if (!next.ok) break;
    fit = next;
  }
  return fit;
}

int CoverageCell(V3 v) {
  double n = Norm(v);
  if (!(n > 0) || !std::isfinite(n)) return -1;
  double z = std::min(1.0, std::max(-1.0, v.z / n));
  int band = std::min(kCoverageBands - 1, static_cast<int>((z + 1.0) * 0.5 * kCoverageBands));
  double lon = std::atan2(v.y, v.x) + kPi;  // [0, 2 pi]
  int sector = std::min(kCoverageSectors - 1, static_cast<int>(lon / (2 * kPi) * kCoverageSectors));
  return band * kCoverageSectors + sector;
}

void DirectionCells::Add(V3 m, V3 centre) {
  int c = CoverageCell(m - centre);
  if (c >= 0) cells_.set(static_cast<size_t>(c));
}

double Coverage(const std::vector<V3> &points, V3 centre) {
  DirectionCells cells;
  for (const V3 &p : points) cells.Add(p, centre);
  return cells.Share();
}

}  // namespace qvn_tools
