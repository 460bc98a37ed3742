// Rate limit of the host-interface log lines: about one line per second of
// sample time, per line.
//
// A line is admitted when the sample time has advanced by strictly more than
// one second (at least 1000000001 ns, signed 64-bit difference) since the line
// was last written; the reference moves only when a line is written. A clock
// that goes backwards therefore silences the line until it passes the
// reference by more than a second. The last-logged time starts at zero.
#ifndef QVNLIB_API_THROTTLE_H
#define QVNLIB_API_THROTTLE_H

#include <stdint.h>

namespace qvn {

class Throttle {
 public:
  static constexpr int64_t kMinGapNs = 1000000001;

  bool Admit(int64_t t) {
    // Wrapping subtraction: the signed difference of two arbitrary host
    // timestamps must not overflow into undefined behaviour.
    const int64_t d = static_cast<int64_t>(static_cast<uint64_t>(t) - static_cast<uint64_t>(last_));
    if (d < kMinGapNs) return false;
    last_ = t;
    return true;
  }

 private:
  int64_t last_ = 0;
};

}  // namespace qvn

#endif  // QVNLIB_API_THROTTLE_H
