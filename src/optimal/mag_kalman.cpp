// Scalar Kalman smoothing of the magnetic field, one gain shared by the axes.
//
//   predict  P' = A A P + Q
//   gain     G  = P' / (P' + R)
//   update   out_i = A prev_i + G (v_i - A prev_i),   P = P' - P' G
// A, Q and R are tunables; with the compiled-in R = 0 the gain is 1 and the
// filter passes its input through, so smoothing exists only for a host or
// profile that sets R. A start delay lets the first calls after calibration
// initialisation pass through unfiltered while they seed the state.
//
// The gain is the plain quotient: a host that sets Q = 0 and R = 0 gets 0/0
// once the covariance has converged to 0, and a NaN field from then on. That
// is the filter as designed; it is not guarded here.
#include "optimal/optimal.h"

float *optimal_mag_filter(float v[3]) {
  const float p_pred = m_kmf_a * m_kmf_a * m_kmf_p + g_m_kmf_q;
  m_kmf_pt = p_pred;
  const float gain = p_pred / (p_pred + g_m_kmf_r);
  m_kmf_g = gain;

  if (m_kmf_start_delay != 0) {
    const int16_t was = m_kmf_start_delay;
    m_kmf_start_delay = static_cast<int16_t>(was - 1);
    // The call that brings the delay from 1 to 0 is already filtered, so a
    // delay of 10 passes nine samples through.
    if (was != 1) {
      m_kmf_output[0] = v[0];
      m_kmf_output[1] = v[1];
      m_kmf_output[2] = v[2];
      m_kmf_p = p_pred - p_pred * gain;
      return v;
    }
  }

  for (int i = 0; i < 3; ++i) {
    const float predicted = m_kmf_a * m_kmf_output[i];
    const float out = predicted + gain * (v[i] - predicted);
    m_kmf_output[i] = out;
    v[i] = out;
  }
  m_kmf_p = p_pred - p_pred * gain;
  return v;
}
