// Four-lane float vectors for the batch loops (GCC/Clang vector extensions:
// SSE on x86-64, NEON on AArch64). Library-internal.
//
// Every lane operation is the IEEE operation of the scalar code it replaces,
// rounded the same way (-ffp-contract=off keeps a * b + c from fusing), so a
// loop that works lane-wise on independent quantities gives the same bits.
// The rule that keeps results identical: lanes hold different matrix
// elements or different samples' independent values, never partial sums of
// one quantity over several samples, whose order of addition is fixed.
#ifndef QVNLIB_MATH_SIMD_H
#define QVNLIB_MATH_SIMD_H

#include <math.h>
#include <stdint.h>
#include <string.h>

#if defined(__SSE__)
#include <xmmintrin.h>
#elif defined(__ARM_NEON)
#include <arm_neon.h>
#endif

namespace qvn {
namespace simd {

typedef float F4 __attribute__((vector_size(16)));
typedef int32_t M4 __attribute__((vector_size(16)));  // lane masks: 0 or -1

inline F4 Load(const float *p) {
  F4 v;
  memcpy(&v, p, sizeof v);
  return v;
}

inline void Store(float *p, F4 v) { memcpy(p, &v, sizeof v); }

inline F4 Splat(float f) { return F4{f, f, f, f}; }

inline bool Any(M4 m) { return (m[0] | m[1] | m[2] | m[3]) != 0; }

// Lane-wise mask ? a : b, moving bits only.
inline F4 Select(M4 mask, F4 a, F4 b) {
  M4 ia, ib;
  memcpy(&ia, &a, sizeof ia);
  memcpy(&ib, &b, sizeof ib);
  const M4 r = (mask & ia) | (~mask & ib);
  F4 out;
  memcpy(&out, &r, sizeof out);
  return out;
}

// Lane-wise minimum and maximum, for lanes that hold neither NaN nor a zero:
// there every float compares as its value and the instruction's answer is
// the comparison's. (The instructions differ from each other only on NaN
// and on a -0/+0 pair; callers keep such lanes away.)
inline F4 Min(F4 a, F4 b) {
#if defined(__SSE__)
  return (F4)_mm_min_ps((__m128)a, (__m128)b);
#elif defined(__ARM_NEON)
  return vminq_f32(a, b);
#else
  return Select(a < b, a, b);
#endif
}

inline F4 Max(F4 a, F4 b) {
#if defined(__SSE__)
  return (F4)_mm_max_ps((__m128)a, (__m128)b);
#elif defined(__ARM_NEON)
  return vmaxq_f32(a, b);
#else
  return Select(a < b, b, a);
#endif
}

// Lane-wise correctly rounded square root: sqrtf of each lane.
inline F4 Sqrt(F4 a) {
#if defined(__SSE__)
  return (F4)_mm_sqrt_ps((__m128)a);
#elif defined(__ARM_NEON) && defined(__aarch64__)
  return vsqrtq_f32(a);
#else
  return F4{sqrtf(a[0]), sqrtf(a[1]), sqrtf(a[2]), sqrtf(a[3])};
#endif
}

// Lane-wise |a|: the sign bit cleared, as fabsf does.
inline F4 Abs(F4 a) {
  M4 bits;
  memcpy(&bits, &a, sizeof bits);
  bits &= M4{0x7FFFFFFF, 0x7FFFFFFF, 0x7FFFFFFF, 0x7FFFFFFF};
  F4 out;
  memcpy(&out, &bits, sizeof out);
  return out;
}

// Rows a, b, c, d become columns: on return a = {a0, b0, c0, d0},
// b = {a1, b1, c1, d1}, and so on. Moves bits only.
inline void Transpose(F4 &a, F4 &b, F4 &c, F4 &d) {
  const F4 t0 = __builtin_shufflevector(a, b, 0, 4, 1, 5);
  const F4 t1 = __builtin_shufflevector(a, b, 2, 6, 3, 7);
  const F4 t2 = __builtin_shufflevector(c, d, 0, 4, 1, 5);
  const F4 t3 = __builtin_shufflevector(c, d, 2, 6, 3, 7);
  a = __builtin_shufflevector(t0, t2, 0, 1, 4, 5);
  b = __builtin_shufflevector(t0, t2, 2, 3, 6, 7);
  c = __builtin_shufflevector(t1, t3, 0, 1, 4, 5);
  d = __builtin_shufflevector(t1, t3, 2, 3, 6, 7);
}

}  // namespace simd
}  // namespace qvn

#endif  // QVNLIB_MATH_SIMD_H
