// Sensor samples decoded from a fuzz input, shared by the harnesses that
// drive the entry table.
//
// Timestamps come from one clock that a code byte per sample moves:
//   0..199    forward by code x 0.25 ms (0: a repeated timestamp)
//   200..239  backward by (code - 199) x 10 ms
//   240..251  forward by 2^(code - 210) ns (about 1 s .. 36 min)
//   252       set to the next 8 bytes, any int64
//   253..255  set to INT64_MAX, INT64_MIN or 0
// The clock wraps instead of overflowing. fuzz/make_seeds.py writes the same
// codes; keep the two in step.
#ifndef QVNLIB_FUZZ_SAMPLE_CLOCK_H
#define QVNLIB_FUZZ_SAMPLE_CLOCK_H

#include <stdint.h>

#include "fuzz_input.h"
#include "qvnlib/qvnlib.h"

namespace qvn_fuzz {

constexpr uint64_t kQuarterMs = 250000;   // ns, unit of a forward step
constexpr uint64_t kBackStep = 10000000;  // ns, unit of a backward step

// Moves *now by the next code byte and returns the new time.
inline int64_t Tick(Reader &r, int64_t *now) {
  const uint8_t c = r.U8();
  uint64_t t = static_cast<uint64_t>(*now);
  if (c < 200) {
    t += static_cast<uint64_t>(c) * kQuarterMs;
  } else if (c < 240) {
    t -= static_cast<uint64_t>(c - 199) * kBackStep;
  } else if (c < 252) {
    t += uint64_t{1} << (c - 240 + 30);
  } else if (c == 252) {
    t = r.U64();
  } else {
    const int64_t fixed[] = {INT64_MAX, INT64_MIN, 0};
    t = static_cast<uint64_t>(fixed[c - 253]);
  }
  *now = static_cast<int64_t>(t);
  return *now;
}

// A sample: its clock code, then x, y and z; the accuracy is the caller's.
inline SensorEvent Sample(Reader &r, int64_t *now) {
  SensorEvent e;
  e.timestamp = Tick(r, now);
  e.x = r.Float();
  e.y = r.Float();
  e.z = r.Float();
  e.accuracy = 3;
  return e;
}

}  // namespace qvn_fuzz

#endif  // QVNLIB_FUZZ_SAMPLE_CLOCK_H
