// Time arithmetic that cannot overflow: recordings carry int64 nanosecond
// timestamps from any clock, and options carry seconds as doubles, so a
// difference of two times or a conversion of seconds to nanoseconds must
// saturate instead of wrapping (which C++ leaves undefined).
#ifndef QVNLIB_TOOLS_CORE_CHECKED_H
#define QVNLIB_TOOLS_CORE_CHECKED_H

#include <cmath>
#include <cstdint>
#include <limits>

namespace qvn_tools {

// b - a in nanoseconds as a double, exact up to 2^53 and never overflowing.
inline double SpanNs(int64_t a, int64_t b) {
  int64_t d = 0;
  if (!__builtin_sub_overflow(b, a, &d)) return static_cast<double>(d);
  return static_cast<double>(b) - static_cast<double>(a);
}

inline double SecondsBetween(int64_t a, int64_t b) { return SpanNs(a, b) / 1e9; }

// v rounded toward zero and clamped to the int64 range; NaN gives 0.
inline int64_t SaturatingInt64(double v) {
  if (std::isnan(v)) return 0;
  // 2^63 is exactly representable; every double below it converts safely.
  constexpr double kLimit = 9223372036854775808.0;
  if (v >= kLimit) return std::numeric_limits<int64_t>::max();
  if (v <= -kLimit) return std::numeric_limits<int64_t>::min();
  return static_cast<int64_t>(v);
}

// True when v converts to int64 without clamping.
inline bool FitsInt64(double v) {
  return v >= -9223372036854775808.0 && v < 9223372036854775808.0;  // false for NaN
}

inline int64_t SaturatingAdd(int64_t a, int64_t b) {
  int64_t s = 0;
  if (!__builtin_add_overflow(a, b, &s)) return s;
  return b > 0 ? std::numeric_limits<int64_t>::max() : std::numeric_limits<int64_t>::min();
}

// t0 plus s seconds, saturating.
inline int64_t AddSeconds(int64_t t0_ns, double s) {
  return SaturatingAdd(t0_ns, SaturatingInt64(s * 1e9));
}

}  // namespace qvn_tools

#endif  // QVNLIB_TOOLS_CORE_CHECKED_H
