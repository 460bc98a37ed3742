// Geometry of magnetometer samples for the tools, in double precision and
// independent of the library's own float32 fits: a least-squares sphere and
// the share of directions that a set of samples covers.
//
// Sphere: |m - c|^2 = R^2 is linear in p = (2c, R^2 - |c|^2):
//   2 c . m + (R^2 - |c|^2) = |m|^2,
// solved from the 4 x 4 normal equations.
//
// Coverage: the unit sphere cut into kCoverageBands bands of equal height in
// z (Archimedes: equal height is equal area) and each band into
// kCoverageSectors equal longitude sectors, so every cell has the same area
// (4 pi / 72 sr, about 24 x 24 degrees). A direction covers the cell it falls
// in; coverage is the share of cells covered.
#ifndef QVNLIB_TOOLS_CORE_CALI_GEOMETRY_H
#define QVNLIB_TOOLS_CORE_CALI_GEOMETRY_H

#include <bitset>
#include <cstddef>
#include <vector>

#include "core/geometry.h"

namespace qvn_tools {

constexpr int kCoverageBands = 6;
constexpr int kCoverageSectors = 12;
constexpr int kCoverageCells = kCoverageBands * kCoverageSectors;

struct SphereFit {
  bool ok = false;
  V3 centre{0, 0, 0};
  double radius = 0;
  double residual_rms = 0;  // RMS of |m - c| - R, uT
};

// Plain least squares over all points; ok is false for fewer than 4 points,
// a singular system (all points on one plane) or an imaginary radius.
SphereFit FitSphere(const std::vector<V3> &points);

// Equal-area cell index (0 .. kCoverageCells-1) of the direction of v, or -1
// for a zero or non-finite vector.
int CoverageCell(V3 v);

class DirectionCells {
 public:
  // Marks the cell of the direction of (m - centre).
  void Add(V3 m, V3 centre);
  double Share() const { return static_cast<double>(cells_.count()) / kCoverageCells; }
  size_t Count() const { return cells_.count(); }
  void Clear() { cells_.reset(); }

 private:
  std::bitset<kCoverageCells> cells_;
};

// Share of cells covered by the directions of points about centre.
double Coverage(const std::vector<V3> &points, V3 centre);

}  // namespace qvn_tools

#endif  // QVNLIB_TOOLS_CORE_CALI_GEOMETRY_H
