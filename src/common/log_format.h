// Formatting of the library's log lines without the C library's printf.
//
// Every log line is a literal with %d, %lld, %s and %f conversions (no flags,
// widths or precisions). %f is only ever given float values, so its text is
// the exact binary value of a float rounded to six decimals, which integer
// arithmetic produces exactly:
//
//   value = m * 2^e, m < 2^24, -149 <= e <= 104
//   e >= 0: an integer of at most 128 bits, then ".000000";
//   e < 0:  integer part m >> -e, and the six decimals
//           round((m mod 2^-e) * 10^6 / 2^-e), halves to even, as printf
//           rounds in the default rounding mode; a carry moves into the
//           integer part. (m mod 2^-e) * 10^6 < 2^44, so for -e >= 45 the
//           decimals are always below half a unit and round to 0.
//
// Signs, infinities and NaN follow printf: "-0.000000" for -0 and for
// negative values that round to zero, "inf", "-inf", "nan", "-nan" (the sign
// of a NaN is printed). A standalone check compares FormatFixed6 with
// snprintf("%f") over all 2^32 float bit patterns
// (bench/float_format_check.cpp).
#ifndef QVNLIB_COMMON_LOG_FORMAT_H
#define QVNLIB_COMMON_LOG_FORMAT_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

namespace qvn {

// Longest text of FormatFixed6: sign, 39 integer digits, '.', 6 decimals.
constexpr size_t kFixed6MaxLen = 47;

namespace log_detail {

// Writes the decimal digits of v (at least one) ending just before end;
// returns the first digit.
inline char *DigitsBefore(char *end, uint64_t v) {
  do {
    *--end = static_cast<char>('0' + v % 10u);
    v /= 10u;
  } while (v != 0);
  return end;
}

inline char *CopyOut(char *out, const char *first, const char *last) {
  memcpy(out, first, static_cast<size_t>(last - first));
  return out + (last - first);
}

// m * 2^e for e >= 0, as decimal digits. Base-10^9 limbs, least significant
// first; 2^128 needs five. Each pass multiplies by at most 2^32, which keeps
// limb * factor + carry below 2^62.
inline char *WriteShiftedInteger(char *out, uint32_t m, int e) {
  constexpr uint32_t kBase = 1000000000u;
  uint32_t limb[5] = {m, 0, 0, 0, 0};
  int used = 1;
  while (e > 0) {
    const int s = e < 32 ? e : 32;
    e -= s;
    uint64_t carry = 0;
    for (int i = 0; i < used; ++i) {
      const uint64_t x = (static_cast<uint64_t>(limb[i]) << s) + carry;
      limb[i] = static_cast<uint32_t>(x % kBase);
      carry = x / kBase;
    }
    while (carry != 0) {
      limb[used++] = static_cast<uint32_t>(carry % kBase);
      carry /= kBase;
    }
  }
  char tmp[48];
  char *end = tmp + sizeof tmp;
  char *p = end;
  for (int i = 0; i + 1 < used; ++i) {
    // Lower limbs carry exactly nine digits, leading zeros included.
    uint32_t v = limb[i];
    for (int k = 0; k < 9; ++k) {
      *--p = static_cast<char>('0' + v % 10u);
      v /= 10u;
    }
  }
  p = DigitsBefore(p, limb[used - 1]);
  return CopyOut(out, p, end);
}

}  // namespace log_detail

// Writes printf's "%d" / "%lld" text of v at out, without a terminating
// NUL; returns the end. Needs kIntMaxLen bytes.
constexpr size_t kIntMaxLen = 20;

inline char *FormatInt(long long v, char *out) {
  unsigned long long u = static_cast<unsigned long long>(v);
  if (v < 0) {
    *out++ = '-';
    u = 0ull - u;
  }
  char tmp[24];
  char *end = tmp + sizeof tmp;
  return log_detail::CopyOut(out, log_detail::DigitsBefore(end, u), end);
}

// Writes printf's "%f" text of v (as promoted to double) at out, without a
// terminating NUL; returns the end. Needs kFixed6MaxLen bytes.
inline char *FormatFixed6(float v, char *out) {
  uint32_t bits;
  memcpy(&bits, &v, sizeof bits);
  if ((bits >> 31) != 0) *out++ = '-';
  const uint32_t biased = (bits >> 23) & 0xffu;
  const uint32_t fraction = bits & 0x7fffffu;
  if (biased == 0xffu) {
    memcpy(out, fraction != 0 ? "nan" : "inf", 3);
    return out + 3;
  }
  const uint32_t m = biased != 0 ? (fraction | 0x800000u) : fraction;
  const int e = biased != 0 ? static_cast<int>(biased) - 150 : -149;

  uint32_t integer = 0;
  uint32_t decimals = 0;
  if (e >= 0) {
    out = log_detail::WriteShiftedInteger(out, m, e);
    memcpy(out, ".000000", 7);
    return out + 7;
  }
  const int k = -e;
  if (k < 45) {
    integer = k < 32 ? m >> k : 0u;
    const uint64_t below = static_cast<uint64_t>(m) - (static_cast<uint64_t>(integer) << k);
    const uint64_t scaled = below * 1000000u;  // < 2^44
    uint64_t q = scaled >> k;
    const uint64_t r = scaled - (q << k);
    const uint64_t half = uint64_t{1} << (k - 1);
    if (r > half || (r == half && (q & 1u) != 0)) ++q;
    if (q == 1000000u) {
      q = 0;
      ++integer;
    }
    decimals = static_cast<uint32_t>(q);
  }
  char tmp[16];
  char *end = tmp + sizeof tmp;
  char *p = end;
  for (int i = 0; i < 6; ++i) {
    *--p = static_cast<char>('0' + decimals % 10u);
    decimals /= 10u;
  }
  *--p = '.';
  p = log_detail::DigitsBefore(p, integer);
  return log_detail::CopyOut(out, p, end);
}

}  // namespace qvn

#endif  // QVNLIB_COMMON_LOG_FORMAT_H
