// Exponential smoothing of the reported azimuth and field.
//
//   d   = azimuth change since the last report, wrapped into [-180, 180]
//   ori = pre + w_o d,    mag_i = pre_i + w_m (mag_i - pre_i)
// The slow weights apply below the switch angle, the fast ones above it. A
// change below 1.2 degrees is a dead band: the previous output is held, so a
// resting device reports a steady heading. An unchanged azimuth (d exactly 0)
// touches nothing at all. Weights outside (0, 1] are reset to 1 on every call.
#include "optimal/optimal.h"

#include <math.h>

namespace {

constexpr float kHalfTurnDeg = 180.0f;
constexpr float kFullTurnDeg = 360.0f;
constexpr double kDeadBandDeg = 1.2;  // compared in double
constexpr float kResetWeight = 1.0f;

// A weight above 1 would overshoot and one at or below 0 would freeze the
// output; either is replaced by 1 and the replacement is stored.
void SanitiseWeight(float *w) {
  if (*w > 1.0f || *w <= 0.0f) *w = kResetWeight;
}

}  // namespace

float *optimal_moving_average(float mag[3], float ori[3]) {
  float d = ori[0] - orient_pre[0];
  if (d < -kHalfTurnDeg) {
    d = d + kFullTurnDeg;
  } else if (d > kHalfTurnDeg) {
    d = d - kFullTurnDeg;
  }

  SanitiseWeight(&m_mvavg_weight_slow);
  SanitiseWeight(&m_mvavg_weight_fast);
  SanitiseWeight(&o_mvavg_weight_slow);
  SanitiseWeight(&o_mvavg_weight_fast);

  const float a = fabsf(d);
  if (a == 0.0f) return mag;

  const bool slow = a < o_mvavg_weight_switch_angle;
  const float wo = slow ? o_mvavg_weight_slow : o_mvavg_weight_fast;
  const float wm = slow ? m_mvavg_weight_slow : m_mvavg_weight_fast;

  ori[0] = orient_pre[0] + d * wo;
  for (int i = 0; i < 3; ++i) mag[i] = magnet_pre[i] + wm * (mag[i] - magnet_pre[i]);

  if (static_cast<double>(a) < kDeadBandDeg) {
    ori[0] = orient_pre[0];
    for (int i = 0; i < 3; ++i) mag[i] = magnet_pre[i];
  }

  // Both tests always run: a tiny negative azimuth plus 360 can round to
  // exactly 360, which must come out as 0.
  if (ori[0] < 0.0f) ori[0] = ori[0] + kFullTurnDeg;
  if (ori[0] >= kFullTurnDeg) ori[0] = ori[0] - kFullTurnDeg;

  orient_pre[0] = ori[0];
  for (int i = 0; i < 3; ++i) magnet_pre[i] = mag[i];
  return mag;
}
