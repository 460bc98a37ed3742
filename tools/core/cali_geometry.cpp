// Least-squares spheres and direction coverage (see the header).
#include "core/cali_geometry.h"

#include <algorithm>
#include <cmath>

namespace qvn_tools {
namespace {

constexpr double kPi = 3.14159265358979323846;

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

}  // namespace

SphereFit FitSphere(const std::vector<V3> &points) {
  SphereFit fit;
  // Centred on the mean first: the normal equations of samples 400 uT away
  // from the origin lose most of their digits otherwise.
  V3 mean{0, 0, 0};
  size_t n = points.size();
  if (n < 4) return fit;
  for (const V3 &m : points) mean = mean + m;
  mean = (1.0 / static_cast<double>(n)) * mean;
  double a[4][4] = {}, b[4] = {}, p[4];
  for (const V3 &m : points) {
    V3 d = m - mean;
    double row[4] = {d.x, d.y, d.z, 1.0}, r2 = Dot(d, d);
    for (int j = 0; j < 4; ++j) {
      for (int k = 0; k < 4; ++k) a[j][k] += row[j] * row[k];
      b[j] += row[j] * r2;
    }
  }
  if (!Solve4(a, b, p)) return fit;
  V3 c{0.5 * p[0], 0.5 * p[1], 0.5 * p[2]};
  double r2 = p[3] + Dot(c, c);
  if (!(r2 > 0) || !std::isfinite(r2)) return fit;
  fit.ok = true;
  fit.centre = c + mean;
  fit.radius = std::sqrt(r2);
  double ss = 0;
  for (const V3 &m : points) {
    double e = Norm(m - fit.centre) - fit.radius;
    ss += e * e;
  }
  fit.residual_rms = std::sqrt(ss / static_cast<double>(n));
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
