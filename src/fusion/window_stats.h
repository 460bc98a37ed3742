// Median and mean of the three axes' ring windows of the soft-gyroscope
// input filters (soft_gyro_filters.cpp). Library-internal.
//
// Both work on the three axes at once, one axis per vector lane, and give
// exactly the design's results: the median is the element that a stable
// descending sort (the design's bubble sort) leaves at index (n - 1) / 2,
// the mean the slot-order float sum of entry / n from +0.
#ifndef QVNLIB_FUSION_WINDOW_STATS_H
#define QVNLIB_FUSION_WINDOW_STATS_H

#include <string.h>

#include "fusion/fusion.h"
#include "math/simd.h"

namespace qvn {
namespace window {

using simd::F4;
using simd::M4;

// Element (n - 1) / 2 of the window sorted in descending order.
//
// The result must be the element that an adjacent-swap bubble sort (swap when
// a[j] < a[j+1]) leaves at that index. A straight insertion sort with the same
// strict predicate yields the identical array: both are stable, so equal
// values such as -0 and +0 keep their ring order, and a NaN compares false
// both ways, so in both algorithms it never moves and nothing moves past it.
// Used for windows that hold a NaN, where nothing else reproduces that.
inline float SortedMedian(const float *row, int16_t n) {
  float a[QVN_SORT_CAPACITY];
  memcpy(a, row, sizeof(float) * static_cast<size_t>(n));
  for (int16_t i = 1; i < n; ++i) {
    const float v = a[i];
    int16_t j = i;
    while (j > 0 && a[j - 1] < v) {
      a[j] = a[j - 1];
      --j;
    }
    a[j] = v;
  }
  // With an even window this is the upper of the two middle values.
  return a[(n - 1) / 2];
}

// Column k of three rows as one vector {row0[k], row1[k], row2[k], +0},
// for k = 0..n-1. Four columns at a time while they lie inside the rows.
inline void Columns(const float *const row[3], int16_t n, int16_t capacity, F4 *col) {
  int16_t k = 0;
  for (; k + 4 <= n && k + 4 <= capacity; k += 4) {
    F4 a = simd::Load(row[0] + k), b = simd::Load(row[1] + k);
    F4 c = simd::Load(row[2] + k), d = {0.0f, 0.0f, 0.0f, 0.0f};
    simd::Transpose(a, b, c, d);
    col[k] = a, col[k + 1] = b, col[k + 2] = c, col[k + 3] = d;
  }
  for (; k < n; ++k) col[k] = F4{row[0][k], row[1][k], row[2][k], 0.0f};
}

// Median selection networks for the usual odd windows: after the
// compare-exchanges (lo, hi) <- (min, max) the middle element holds the
// median. Only for lanes without NaN and without zeros, where every value
// is the one the sort would put at the middle index.
inline void Exchange(F4 &lo, F4 &hi) {
  const F4 l = simd::Min(lo, hi);
  hi = simd::Max(lo, hi);
  lo = l;
}

inline F4 Median3(F4 *p) {
  Exchange(p[0], p[1]), Exchange(p[1], p[2]), Exchange(p[0], p[1]);
  return p[1];
}

inline F4 Median5(F4 *p) {
  Exchange(p[0], p[1]), Exchange(p[3], p[4]), Exchange(p[0], p[3]);
  Exchange(p[1], p[4]), Exchange(p[1], p[2]), Exchange(p[2], p[3]);
  Exchange(p[1], p[2]);
  return p[2];
}

inline F4 Median7(F4 *p) {
  Exchange(p[0], p[5]), Exchange(p[0], p[3]), Exchange(p[1], p[6]);
  Exchange(p[2], p[4]), Exchange(p[0], p[1]), Exchange(p[3], p[5]);
  Exchange(p[2], p[6]), Exchange(p[2], p[3]), Exchange(p[3], p[6]);
  Exchange(p[4], p[5]), Exchange(p[1], p[4]), Exchange(p[1], p[3]);
  Exchange(p[3], p[4]);
  return p[3];
}

inline F4 Median9(F4 *p) {
  Exchange(p[1], p[2]), Exchange(p[4], p[5]), Exchange(p[7], p[8]);
  Exchange(p[0], p[1]), Exchange(p[3], p[4]), Exchange(p[6], p[7]);
  Exchange(p[1], p[2]), Exchange(p[4], p[5]), Exchange(p[7], p[8]);
  Exchange(p[0], p[3]), Exchange(p[5], p[8]), Exchange(p[4], p[7]);
  Exchange(p[3], p[6]), Exchange(p[1], p[4]), Exchange(p[2], p[5]);
  Exchange(p[4], p[7]), Exchange(p[4], p[2]), Exchange(p[6], p[4]);
  Exchange(p[4], p[2]);
  return p[4];
}

// Element m of the stable descending order, by counting: with no NaN, it is
// the one element with exactly m elements before it, those greater than it
// and those equal to it that come earlier in the ring (so -0 and +0 keep
// their ring order, as in the sort).
inline F4 RankMedian(const F4 *a, int16_t n) {
  const int32_t m = (n - 1) / 2;
  const M4 want = {m, m, m, m};
  F4 chosen = a[0];
  for (int16_t i = 0; i < n; ++i) {
    M4 before = {0, 0, 0, 0};  // comparisons are -1 when true
    for (int16_t j = 0; j < n; ++j) before -= (a[j] > a[i]);
    for (int16_t j = 0; j < i; ++j) before -= (a[j] == a[i]);
    chosen = simd::Select(before == want, a[i], chosen);
  }
  return chosen;
}

// The medians of the three axes' windows at once (lane = axis), without
// branches on the data: a selection network for the usual odd lengths when
// no value is NaN or zero, the rank count otherwise. A NaN breaks both (it
// compares false both ways and stops the sort's moves), so a window with one
// goes through the sort itself.
inline void Medians(const float *const rows[3], int16_t n, float med[3]) {
  constexpr int16_t kShort = 12;  // every network length fits, in whole vectors
  F4 a[QVN_SORT_CAPACITY];
  // Short windows read the first twelve slots of the rows whatever n is
  // (the rows hold 32); the slots past n are loaded but never looked at.
  Columns(rows, n <= kShort ? kShort : n, QVN_SORT_CAPACITY, a);
  const F4 zero = {0.0f, 0.0f, 0.0f, 0.0f};
  M4 nan = {0, 0, 0, 0}, zeros = {0, 0, 0, 0};
  for (int16_t k = 0; k < n; ++k) {
    nan |= (a[k] != a[k]);
    zeros |= (a[k] == zero);
  }
  // The unused fourth lane holds +0 throughout; it never reaches the output.
  zeros[3] = 0;
  if (simd::Any(nan)) {
    for (int axis = 0; axis < 3; ++axis) med[axis] = SortedMedian(rows[axis], n);
    return;
  }
  F4 chosen;
  const bool plain = !simd::Any(zeros);
  if (plain && n == 9) {
    chosen = Median9(a);
  } else if (plain && n == 7) {
    chosen = Median7(a);
  } else if (plain && n == 5) {
    chosen = Median5(a);
  } else if (plain && n == 3) {
    chosen = Median3(a);
  } else {
    chosen = RankMedian(a, n);
  }
  for (int axis = 0; axis < 3; ++axis) med[axis] = chosen[axis];
}

// sum over the n slots of (entry / n), in slot order from +0, for the three
// axes at once (lane = axis): each lane gets the additions of the plain loop.
inline void Means(const float *const rows[3], int16_t n, int16_t capacity, float out[3]) {
  F4 col[QVN_ACC_MEAN_CAPACITY];
  Columns(rows, n, capacity, col);
  const F4 divisor = simd::Splat(static_cast<float>(n));
  F4 sum = {0.0f, 0.0f, 0.0f, 0.0f};
  for (int16_t k = 0; k < n; ++k) sum += col[k] / divisor;
  for (int axis = 0; axis < 3; ++axis) out[axis] = sum[axis];
}

}  // namespace window
}  // namespace qvn

#endif  // QVNLIB_FUSION_WINDOW_STATS_H
