// Gyroscope zero-rate bias estimators.
//
// Rates are collected in blocks of half a second (half = qvn_algo_odr / 2
// samples). When a block was still (population standard deviation of every
// axis below 0.005 rad/s), its per-axis mean becomes the bias; every call then
// subtracts the bias in place. Blocks do not overlap: the index returns to 0
// after each one, whether or not the bias was replaced.
//
// Two estimators exist, one for the calibration path and one for the fusion
// path, so neither path's bias is disturbed by the other's call pattern. They
// run the very same code over their own state; only the state differs.
#include "cali/cali.h"
#include "math/math.h"

namespace {

constexpr int kWindowCap = 300;          // samples per axis plane of a window
constexpr double kStillStdev = 0.005;    // rad/s, compared in double
constexpr int16_t kMinOdr = 1;           // Hz; below it the estimator is off

// One estimator's state: the planar window (x, y, z planes of kWindowCap
// samples), the number of samples in it, and the bias in force.
struct BiasState {
  float *window;
  int16_t *index;
  float *bias;
};

void TrackAndRemoveBias(float gyro[3], const BiasState &st) {
  if (qvn_algo_odr < kMinOdr) return;
  // Half a second of samples; a rate above 601 Hz would need more than a
  // plane holds, so the block is capped at a full plane.
  int half = qvn_algo_odr / 2;
  if (half > kWindowCap) half = kWindowCap;

  // The index is exported and may hold anything: write inside the planes.
  int i = *st.index;
  if (i < 0) i = 0;
  if (i > kWindowCap - 1) i = kWindowCap - 1;
  float *px = st.window;
  float *py = st.window + kWindowCap;
  float *pz = st.window + 2 * kWindowCap;
  px[i] = gyro[0];
  py[i] = gyro[1];
  pz[i] = gyro[2];
  *st.index = static_cast<int16_t>(i + 1);

  if (*st.index >= half) {
    const int16_t n = static_cast<int16_t>(half);
    const float sx = sensor_data_stdev(px, n);
    const float sy = sensor_data_stdev(py, n);
    const float sz = sensor_data_stdev(pz, n);
    // Strict comparisons, so a NaN deviation keeps the old bias. A block of
    // no samples (rate 1 Hz) has deviation 0 and a mean of 0/0 = NaN, which
    // is what the estimator has always produced there.
    if (static_cast<double>(sx) < kStillStdev && static_cast<double>(sy) < kStillStdev &&
        static_cast<double>(sz) < kStillStdev) {
      const float *planes[3] = {px, py, pz};
      for (int a = 0; a < 3; ++a) {
        float sum = 0.0f;
        for (int k = 0; k < half; ++k) sum += planes[a][k];
        st.bias[a] = sum / static_cast<float>(half);
      }
    }
    *st.index = 0;
  }

  gyro[0] -= st.bias[0];
  gyro[1] -= st.bias[1];
  gyro[2] -= st.bias[2];
}

}  // namespace

void qvn_cali_gyro(float gyro[3]) {
  TrackAndRemoveBias(gyro, BiasState{gyr_cali_data, &gyr_cali_index, gyr_cali_bias});
}

void qvn_fusion_gyro(float gyro[3]) {
  TrackAndRemoveBias(gyro, BiasState{gyr_fusion_data, &gyr_fusion_index, gyr_fusion_bias});
}
