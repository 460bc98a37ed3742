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

#include <stdint.h>
#include <string.h>

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

}  // namespace simd
}  // namespace qvn

#endif  // QVNLIB_MATH_SIMD_H
