// Gauss-Jordan inversion of an n x n float matrix held in 9 x 9 storage.
//
//   [A | I]  --eliminate every column-->  [D | B]  --scale rows by 1/D_ii-->  [I | A^-1]
//
// A pivot is exchanged only when it is exactly zero, and then with the first
// non-zero row below it: there is deliberately no search for the largest
// pivot, so nearly singular matrices invert to large entries that the fits'
// plausibility checks reject. The pivot row is not scaled during elimination;
// all rows are scaled once at the end. All arithmetic is float.
//
// Each order has its own instance with constant sizes. Row operations run
// four columns at a time; every column still gets exactly its own scalar
// operation (one division per row for the factor, no reciprocal).
#include <string.h>

#include "math/math.h"
#include "math/simd.h"

namespace {

using qvn::simd::F4;

constexpr int kDim = 9;
// Working rows of [A | I]: 2n <= 18 columns used, padded to five whole
// vectors. Padding columns hold +0 and whatever the row operations make of
// them; nothing reads them back.
constexpr int kWidth = 20;

// row -= f * pivot over the first kChunks vectors: every column gets
// exactly its scalar w[i][j] - f * w[k][j], four columns at a time.
template <int kChunks>
void Eliminate(float *row, const float *pivot, float f) {
  const F4 vf = qvn::simd::Splat(f);
  for (int g = 0; g < kChunks; ++g) {
    const F4 r = qvn::simd::Load(row + 4 * g);
    qvn::simd::Store(row + 4 * g, r - vf * qvn::simd::Load(pivot + 4 * g));
  }
}

// The inversion for one order; the sizes are constants so that the row
// operations unroll.
template <int N>
int16_t Invert(const float in[81], float out[81]) {
  constexpr int kChunks = (2 * N + 3) / 4;
  float w[kDim][kWidth];
  for (int i = 0; i < kDim; ++i) {
    memcpy(w[i], in + kDim * i, kDim * sizeof(float));
    memset(w[i] + kDim, 0, (kWidth - kDim) * sizeof(float));
  }
  for (int i = 0; i < N; ++i) {
    for (int c = 0; c < N; ++c) w[i][N + c] = (c == i) ? 1.0f : 0.0f;
  }

  for (int k = 0; k < N; ++k) {
    if (w[k][k] == 0.0f) {
      int r = k + 1;
      while (r < N && w[r][k] == 0.0f) ++r;
      if (r == N) return 0;
      for (int j = 0; j < kWidth; ++j) {
        const float t = w[k][j];
        w[k][j] = w[r][j];
        w[r][j] = t;
      }
    }
    // One division per row, as designed: no reciprocal of the pivot.
    for (int i = 0; i < N; ++i) {
      if (i == k) continue;
      Eliminate<kChunks>(w[i], w[k], w[i][k] / w[k][k]);
    }
  }

  for (int i = 0; i < N; ++i) {
    const float d = w[i][i];
    if (d == 0.0f) return 0;
    // A division of each entry by the diagonal read before the row changes.
    // Only the right half (from column N) is ever read again, so the left
    // half, which would become the identity, is left undivided.
    const F4 vd = qvn::simd::Splat(d);
    for (int g = N / 4; g < kChunks; ++g) {
      qvn::simd::Store(w[i] + 4 * g, qvn::simd::Load(w[i] + 4 * g) / vd);
    }
  }

  for (int i = 0; i < N; ++i) {
    for (int c = 0; c < N; ++c) out[kDim * i + c] = w[i][N + c];
  }
  return 1;
}

}  // namespace

int16_t inverse_matrix(const float in[81], float out[81], uint8_t n) {
  switch (n) {
    case 2: return Invert<2>(in, out);
    case 3: return Invert<3>(in, out);
    case 4: return Invert<4>(in, out);
    case 5: return Invert<5>(in, out);
    case 6: return Invert<6>(in, out);
    case 7: return Invert<7>(in, out);
    case 8: return Invert<8>(in, out);
    case 9: return Invert<9>(in, out);
    default: return 0;  // orders outside 2..9
  }
}
