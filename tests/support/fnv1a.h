// 64-bit FNV-1a, the digest the golden files hold. Multi-byte values are
// folded least significant byte first, so a digest does not depend on the
// byte order of the machine that computed it.
#ifndef QVNLIB_TESTS_SUPPORT_FNV1A_H
#define QVNLIB_TESTS_SUPPORT_FNV1A_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

namespace qvn_test {

class Fnv1a {
 public:
  void Bytes(const void *p, size_t n) {
    const unsigned char *b = static_cast<const unsigned char *>(p);
    for (size_t i = 0; i < n; ++i) h_ = (h_ ^ b[i]) * 0x100000001b3ull;
  }
  void Byte(unsigned char c) { Bytes(&c, 1); }
  void U32(uint32_t v) {
    for (int i = 0; i < 4; ++i) Byte(static_cast<unsigned char>(v >> (8 * i)));
  }
  void U64(uint64_t v) {
    for (int i = 0; i < 8; ++i) Byte(static_cast<unsigned char>(v >> (8 * i)));
  }
  void F32(float f) {
    uint32_t b;
    memcpy(&b, &f, sizeof b);
    U32(b);
  }
  uint64_t value() const { return h_; }

 private:
  uint64_t h_ = 0xcbf29ce484222325ull;
};

}  // namespace qvn_test

#endif  // QVNLIB_TESTS_SUPPORT_FNV1A_H
