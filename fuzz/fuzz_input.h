// Byte decoder shared by the fuzz harnesses.
//
// A fuzz input is read front to back; once it runs out every read yields
// zero, so any prefix of a valid input is itself a valid (shorter) input.
// Floats are encoded so that most mutations stay physically plausible while
// the rest reach the values a sensor service must survive:
//
//   tag 0x00..0xBF  fixed point: int16 (little-endian) / kFixedDivisor[tag & 3]
//                   (ranges +-128, +-512, +-4096, +-32768)
//   tag 0xC0..0xDF  raw IEEE-754 float32 from the next 4 bytes
//   tag 0xE0..0xFF  kSpecials[tag & 0x1F]: NaNs, infinities, denormals, limits
//
// fuzz/make_seeds.py writes the same encoding; keep the two in step.
#ifndef QVNLIB_FUZZ_FUZZ_INPUT_H
#define QVNLIB_FUZZ_FUZZ_INPUT_H

#include <float.h>
#include <math.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

namespace qvn_fuzz {

constexpr float kFixedDivisor[4] = {256.0f, 64.0f, 8.0f, 1.0f};
constexpr uint8_t kTagRawFloat = 0xC0;
constexpr uint8_t kTagSpecial = 0xE0;

// Values that broke sensor code before: keep the order (seeds refer to it).
inline float Special(unsigned i) {
  uint32_t bits[] = {
      0x7fc00000u, 0xffc00000u, 0x7f800001u, 0x7f800000u,  // qNaN, -qNaN, sNaN, +inf
      0xff800000u, 0x00000001u, 0x80000001u, 0x007fffffu,  // -inf, +-min denormal, max denormal
      0x00800000u, 0x7f7fffffu, 0xff7fffffu, 0x00000000u,  // FLT_MIN, +-FLT_MAX, +0
      0x80000000u, 0x3f800000u, 0xbf800000u, 0x60ad78ecu,  // -0, +-1, 1e20
      0xe0ad78ecu, 0x1e3ce508u, 0x4b000000u, 0x4effffffu,  // -1e20, 1e-20, 2^23, ~2^31
      0xcf000000u, 0x47000000u, 0xc7000000u, 0x477fe000u,  // -2^31, +-32768, 65504
      0x3f7fffffu, 0x3f800001u, 0x42340000u, 0x42c80000u,  // 1-ulp, 1+ulp, 45, 100
      0xc2340000u, 0x411cf5c3u, 0x7fffffffu, 0x5f000000u,  // -45, 9.81, NaN payload, 2^63
  };
  float f;
  memcpy(&f, &bits[i & 31u], sizeof f);
  return f;
}

class Reader {
 public:
  Reader(const uint8_t *data, size_t size) : data_(data), size_(size) {}

  bool empty() const { return pos_ >= size_; }

  uint8_t U8() { return pos_ < size_ ? data_[pos_++] : 0; }
  uint16_t U16() {
    uint16_t lo = U8();
    return static_cast<uint16_t>(lo | (static_cast<uint16_t>(U8()) << 8));
  }
  uint32_t U32() {
    uint32_t lo = U16();
    return lo | (static_cast<uint32_t>(U16()) << 16);
  }
  uint64_t U64() {
    uint64_t lo = U32();
    return lo | (static_cast<uint64_t>(U32()) << 32);
  }
  int16_t I16() { return static_cast<int16_t>(U16()); }
  int32_t I32() { return static_cast<int32_t>(U32()); }
  int64_t I64() { return static_cast<int64_t>(U64()); }

  float Float() {
    const uint8_t tag = U8();
    if (tag >= kTagSpecial) return Special(tag);
    if (tag >= kTagRawFloat) {
      const uint32_t bits = U32();
      float f;
      memcpy(&f, &bits, sizeof f);
      return f;
    }
    return static_cast<float>(I16()) / kFixedDivisor[tag & 3u];
  }

 private:
  const uint8_t *data_;
  size_t size_;
  size_t pos_ = 0;
};

}  // namespace qvn_fuzz

#endif  // QVNLIB_FUZZ_FUZZ_INPUT_H
