// Gauss-Jordan inversion of an n x n float matrix held in 9 x 9 storage.
//
//   [A | I]  --eliminate every column-->  [D | B]  --scale rows by 1/D_ii-->  [I | A^-1]
//
// A pivot is exchanged only when it is exactly zero, and then with the first
// non-zero row below it: there is deliberately no search for the largest
// pivot, so nearly singular matrices invert to large entries that the fits'
// plausibility checks reject. The pivot row is not scaled during elimination;
// all rows are scaled once at the end. All arithmetic is float.
#include <string.h>

#include "math/math.h"

namespace {
constexpr int kDim = 9;
constexpr int kWidth = 2 * kDim;
}  // namespace

int16_t inverse_matrix(const float in[81], float out[81], uint8_t n) {
  if (n < 2 || n > kDim) return 0;
  float w[kDim][kWidth];
  for (int i = 0; i < kDim; ++i) memcpy(w[i], in + kDim * i, kDim * sizeof(float));
  for (int i = 0; i < n; ++i) {
    for (int c = 0; c < n; ++c) w[i][n + c] = (c == i) ? 1.0f : 0.0f;
  }
  const int cols = 2 * n;

  for (int k = 0; k < n; ++k) {
    if (w[k][k] == 0.0f) {
      int r = k + 1;
      while (r < n && w[r][k] == 0.0f) ++r;
      if (r == n) return 0;
      for (int j = 0; j < cols; ++j) {
        const float t = w[k][j];
        w[k][j] = w[r][j];
        w[r][j] = t;
      }
    }
    const float *pivot_row = w[k];
    for (int i = 0; i < n; ++i) {
      if (i == k) continue;
      const float f = w[i][k] / pivot_row[k];
      float *row = w[i];
      for (int j = 0; j < cols; ++j) row[j] = row[j] - f * pivot_row[j];
    }
  }

  for (int i = 0; i < n; ++i) {
    const float d = w[i][i];
    if (d == 0.0f) return 0;
    for (int j = 0; j < cols; ++j) w[i][j] = w[i][j] / d;
  }

  for (int i = 0; i < n; ++i) {
    for (int c = 0; c < n; ++c) out[kDim * i + c] = w[i][n + c];
  }
  return 1;
}
