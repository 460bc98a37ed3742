// Normal equations of the ellipsoid fit, summed over a batch four matrix
// elements at a time. Library-internal; used by ellipsoid_fit.cpp.
//
// For samples with term vectors v (nine general-quadric terms or six shape
// terms) the fit needs N = sum of v v^T and, after N is inverted into invDM,
// p = sum of invDM v. Both sums are floats in sample order starting from +0,
// and each sample's invDM v is a dot product in term order: the vector lanes
// only ever hold different elements, so every element gets exactly the
// additions of the plain loops, in their order.
#ifndef QVNLIB_CALI_NORMAL_EQUATIONS_H
#define QVNLIB_CALI_NORMAL_EQUATIONS_H

#include "cali/cali.h"
#include "math/simd.h"

namespace qvn {
namespace normal {

using simd::F4;

constexpr int kStride = 9;  // row stride of DM / invDM

// A sample's terms in scalars and, padded with +0, in three vectors of four
// (terms 0-3, 4-7, 8-11).
struct Terms {
  float t[12];
  F4 v[3];
};

inline void Pack(Terms &s) {
  for (int g = 0; g < 3; ++g) {
    s.v[g] = F4{s.t[4 * g], s.t[4 * g + 1], s.t[4 * g + 2], s.t[4 * g + 3]};
  }
}

// Quadric terms of one centred sample: x^2, y^2, z^2, 2xy, 2xz, 2yz.
inline Terms ShapeTerms(float x, float y, float z) {
  Terms s = {{x * x, y * y, z * z, 2.0f * x * y, 2.0f * x * z, 2.0f * y * z, 0.0f, 0.0f, 0.0f,
              0.0f, 0.0f, 0.0f},
             {}};
  Pack(s);
  return s;
}

// The nine terms of the general ellipsoid: the shape terms, 2x, 2y, 2z.
inline Terms QuadricTerms(float x, float y, float z) {
  Terms s = {{x * x, y * y, z * z, 2.0f * x * y, 2.0f * x * z, 2.0f * y * z, 2.0f * x, 2.0f * y,
              2.0f * z, 0.0f, 0.0f, 0.0f},
             {}};
  Pack(s);
  return s;
}

constexpr int UpperChunks(int k) {
  int n = 0;
  for (int i = 0; i < k; ++i) n += (k + 3) / 4 - i / 4;
  return n;
}

// The sum over samples of v v^T, K x K. Element (i, j) is the float sum in
// sample order of v_i * v_j starting from +0, exactly what adding each
// sample's outer product into a zeroed matrix gives; since v_i * v_j and
// v_j * v_i are the same float, only j >= i is needed and is mirrored. Row i
// is held in the four-column chunks from the one that holds column i on;
// lanes left of the diagonal and past K are never read back.
template <int K>
class OuterSums {
 public:
  void Add(const Terms &s) {
    int a = 0;
    for (int i = 0; i < K; ++i) {
      const F4 vi = simd::Splat(s.t[i]);
      for (int c = i / 4; c < kChunks; ++c) acc_[a++] += vi * s.v[c];
    }
  }

  // Writes the leading K x K block of DM (both triangles).
  void Store() const {
    int a = 0;
    for (int i = 0; i < K; ++i) {
      for (int c = i / 4; c < kChunks; ++c, ++a) {
        for (int l = 0; l < 4; ++l) {
          const int j = 4 * c + l;
          if (j < i || j >= K) continue;
          DM[kStride * i + j] = acc_[a][l];
          DM[kStride * j + i] = acc_[a][l];
        }
      }
    }
  }

 private:
  static constexpr int kChunks = (K + 3) / 4;
  F4 acc_[UpperChunks(K)] = {};
};

// p_i = sum over samples of (row i of invDM) . v, K unknowns. Each sample's
// dot product is formed in term order from +0 and then added to p_i, as the
// design has it (the sum of the v is never formed, it would round
// differently). The lanes run over i: lane i of column vector j holds
// invDM[i][j], so one multiply-add per term advances all K dot products.
template <int K>
class Solution {
 public:
  Solution() {
    for (int j = 0; j < K; ++j) {
      float col[12] = {0.0f};
      for (int i = 0; i < K; ++i) col[i] = invDM[kStride * i + j];
      for (int g = 0; g < kGroups; ++g) cols_[j][g] = simd::Load(col + 4 * g);
    }
  }

  void Add(const Terms &s) {
    F4 dot[kGroups] = {};
    for (int j = 0; j < K; ++j) {
      const F4 vj = simd::Splat(s.t[j]);
      for (int g = 0; g < kGroups; ++g) dot[g] += cols_[j][g] * vj;
    }
    for (int g = 0; g < kGroups; ++g) p_[g] += dot[g];
  }

  void Result(float *p) const {
    for (int i = 0; i < K; ++i) p[i] = p_[i / 4][i % 4];
  }

 private:
  static constexpr int kGroups = (K + 3) / 4;
  F4 cols_[K][kGroups];
  F4 p_[kGroups] = {};
};

}  // namespace normal
}  // namespace qvn

#endif  // QVNLIB_CALI_NORMAL_EQUATIONS_H
