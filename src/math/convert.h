// Float-to-integer conversions with defined results, and the shared angular
// constants.
//
// C leaves an out-of-range float-to-integer conversion undefined, while the
// phone's processor saturates. These helpers give every build the AArch64
// result: saturate to the int32 limits, NaN gives 0, and a 16-bit destination
// keeps the low 16 bits of that int32 (what `(int16_t)f` does on AArch64).
// Every truncating conversion in the library goes through them.
#ifndef QVNLIB_MATH_CONVERT_H
#define QVNLIB_MATH_CONVERT_H

#include <stdint.h>

namespace qvn {

// Pi and two pi as the library has always written them (eleven decimals, not
// the full double constant); comparisons against them are part of the results.
constexpr double kPi = 3.14159265359;
constexpr double kTwoPi = 6.28318530718;

inline int32_t TruncToI32(double v) {
  if (v != v) return 0;  // NaN
  if (v >= 2147483647.0) return INT32_MAX;
  if (v <= -2147483648.0) return INT32_MIN;
  return static_cast<int32_t>(v);
}

inline int32_t TruncToI32(float v) { return TruncToI32(static_cast<double>(v)); }

inline int16_t TruncToI16(double v) {
  return static_cast<int16_t>(static_cast<uint16_t>(static_cast<uint32_t>(TruncToI32(v))));
}

inline int16_t TruncToI16(float v) { return TruncToI16(static_cast<double>(v)); }

inline int64_t TruncToI64(double v) {
  if (v != v) return 0;
  if (v >= 9223372036854775807.0) return INT64_MAX;
  if (v <= -9223372036854775808.0) return INT64_MIN;
  return static_cast<int64_t>(v);
}

}  // namespace qvn

#endif  // QVNLIB_MATH_CONVERT_H
