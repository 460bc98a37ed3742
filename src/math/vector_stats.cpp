// Vector normalisation and the population standard deviation of a series.
//
// The standard deviation divides every term by n before adding it, rather
// than dividing the sums once: the rounding this produces is what the
// calibration thresholds were tuned against, so it is kept.
#include <math.h>

#include "math/math.h"

int16_t sensor_data_normalize(float out[3], const float in[3]) {
  const float n = sqrtf((in[0] * in[0] + in[1] * in[1]) + in[2] * in[2]);
  // !(n > 0) also catches a NaN norm.
  if (!(n > 0.0f)) {
    out[0] = 0.0f;
    out[1] = 0.0f;
    out[2] = 0.0f;
    return 0;
  }
  // A division per component (not a multiplication by 1/n); out may alias in.
  const float x = in[0] / n;
  const float y = in[1] / n;
  const float z = in[2] / n;
  out[0] = x;
  out[1] = y;
  out[2] = z;
  return 1;
}

float sensor_data_stdev(const float *data, int16_t n) {
  if (n < 1) return 0.0f;
  const float fn = static_cast<float>(n);
  float mean = 0.0f;
  for (int16_t i = 0; i < n; ++i) mean += data[i] / fn;
  float var = 0.0f;
  for (int16_t i = 0; i < n; ++i) {
    const float d = data[i] - mean;
    var += d * d / fn;
  }
  return sqrtf(var);
}
