// Magnetic interference detection and clipped soft-iron application.
//
// A raw sample is disturbed when one axis sits exactly at the chip's full
// scale (the reading was clipped) or when one axis has moved more than 300 uT
// from the sample of the last detection. A detection throws the collected
// calibration batch away and (re)starts a countdown of
// mag_interf_countdown_threshold samples, during which the driver fits
// nothing. The jump is measured from the last detection (zero before the
// first), not from the previous sample: a slow drift past 300 uT is caught as
// well as a step, and returning to the old field after a step is a second
// event.
#include <math.h>

#include "cali/cali.h"

namespace {

constexpr float kMaxJump = 300.0f;  // uT per axis, from the last detection

// Clamp to +-mag_field_range: upper bound first, then lower, so that a NaN
// range leaves the value alone and an inverted range ends at -range.
float ClipToRange(float v) {
  if (v > mag_field_range) v = mag_field_range;
  if (v < -mag_field_range) v = -mag_field_range;
  return v;
}

}  // namespace

void qvn_mag_interference(const float mag[3]) {
  if (mag_interf_countdown != 0) mag_interf_countdown = static_cast<uint16_t>(mag_interf_countdown - 1);

  bool flagged = false;
  for (int i = 0; i < 3 && !flagged; ++i) {
    // Exact equality on purpose: only a reading the driver clipped to full
    // scale matches, a strong but measurable field does not.
    flagged = fabsf(mag[i]) == mag_field_range || fabsf(mag[i] - mag_interf_pre[i]) > kMaxJump;
  }
  if (!flagged) return;

  for (int i = 0; i < 3; ++i) mag_interf_pre[i] = mag[i];
  mag_interf_countdown = mag_interf_countdown_threshold;
  clear_data_buffer();
}

int16_t qvn_mag_interference_detection(void) { return mag_interf_countdown != 0 ? 1 : 0; }

float *qvn_sfi_reduce(float v[3], const float sfi[9]) {
  // All three rows are formed from the incoming vector before it is written.
  float out[3];
  for (int i = 0; i < 3; ++i) out[i] = sfi[3 * i] * v[0] + sfi[3 * i + 1] * v[1] + sfi[3 * i + 2] * v[2];
  for (int i = 0; i < 3; ++i) v[i] = ClipToRange(out[i]);
  return v;
}
