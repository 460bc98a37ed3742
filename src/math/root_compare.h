// A distance compared without taking its square root. Library-internal.
//
//   sqrtf(d2) < limit   <=>   d2 < SquaredLimit(limit)
//
// for every d2 >= +0 and for NaN (both sides false), whatever the limit
// (0, negative, subnormal, huge, infinite, NaN). sqrtf is correctly rounded
// and so never decreases as its argument grows; the set of d2 whose root
// falls below the limit is therefore everything below one float, the
// smallest whose root reaches the limit. limit * limit lands within an ulp
// or two of it and a short walk over neighbouring floats finds it exactly.
#ifndef QVNLIB_MATH_ROOT_COMPARE_H
#define QVNLIB_MATH_ROOT_COMPARE_H

#include <math.h>
#include <stdint.h>
#include <string.h>

namespace qvn {

namespace root_compare_detail {
// Neighbours of a non-negative float: one step in its bit pattern.
inline float Step(float f, int32_t by) {
  uint32_t b;
  memcpy(&b, &f, sizeof b);
  b = static_cast<uint32_t>(static_cast<int32_t>(b) + by);
  memcpy(&f, &b, sizeof f);
  return f;
}
}  // namespace root_compare_detail

inline float SquaredLimit(float limit) {
  using root_compare_detail::Step;
  // No root is below a limit of 0 or less, or below NaN: nothing is "<".
  if (!(limit > 0.0f)) return 0.0f;
  // Every finite d2 has a root below infinity.
  if (isinf(limit)) return limit;
  float t = limit * limit;  // +0 for a tiny limit, +inf for a huge one
  while (t > 0.0f && sqrtf(Step(t, -1)) >= limit) t = Step(t, -1);
  while (sqrtf(t) < limit) t = Step(t, +1);  // ends at +inf at the latest
  return t;
}

}  // namespace qvn

#endif  // QVNLIB_MATH_ROOT_COMPARE_H
