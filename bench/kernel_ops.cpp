// Kernels called directly by their exported names: the Gauss-Jordan
// inversion at the orders the fits use, the sphere and ellipsoid fits, the
// soft-gyroscope input filters and the distance test of sample collection.
//
// Inputs come from the simulated stream: batches of field samples spread over
// the whole recording, normal matrices built from them exactly as the fits
// build theirs, and accelerometer and field vectors in stream order.
#include <string.h>

#include <vector>

#include "bench_support.h"
#include "cali/cali.h"
#include "fusion/fusion.h"
#include "math/math.h"

namespace qvn_bench {
namespace {

constexpr int kStride = 9;
constexpr int kMaxBatch = QVN_BATCH_CAPACITY;
constexpr float kFarAway = 500.0f;  // uT added to a probe: no stored sample is near it

float g_x[kMaxBatch], g_y[kMaxBatch], g_z[kMaxBatch];     // raw batch
float g_cx[kMaxBatch], g_cy[kMaxBatch], g_cz[kMaxBatch];  // batch minus the sphere centre
float g_matrix[10][81];                                   // normal matrix per order
float g_inverse[81];
float g_result[12];

void MakeBatch() {
  ResetLibrary(2, Log::kSilent, CurrentFile::kAbsent);
  SpreadBatch(kMaxBatch, g_x, g_y, g_z);
  float centre[3], radius;
  calculate_sphere_offset(g_x, g_y, g_z, 100, centre, &radius);
  memcpy(g_matrix[4], DM, sizeof DM);  // the fit leaves its 4 x 4 normal matrix in DM
  for (int i = 0; i < kMaxBatch; ++i) {
    g_cx[i] = g_x[i] - centre[0];
    g_cy[i] = g_y[i] - centre[1];
    g_cz[i] = g_z[i] - centre[2];
  }
  float sfi[9], scale;
  calculate_magnetic_sfi_hdi(g_cx, g_cy, g_cz, kMaxBatch, centre, sfi, &scale);
  memcpy(g_matrix[6], DM, sizeof DM);  // ... and the ellipsoid fit its last, 6 x 6, one
  // The 9 x 9 first-stage matrix is overwritten by the later stages; build
  // it the same way: the sum over samples of v v^T.
  memset(g_matrix[9], 0, sizeof g_matrix[9]);
  for (int s = 0; s < kMaxBatch; ++s) {
    const float x = g_cx[s], y = g_cy[s], z = g_cz[s];
    const float v[9] = {x * x, y * y, z * z, 2.0f * x * y, 2.0f * x * z, 2.0f * y * z,
                        2.0f * x, 2.0f * y, 2.0f * z};
    for (int i = 0; i < 9; ++i) {
      for (int j = 0; j < 9; ++j) g_matrix[9][kStride * i + j] += v[i] * v[j];
    }
  }
}

void RunInverse4() { inverse_matrix(g_matrix[4], g_inverse, 4); }
void RunInverse6() { inverse_matrix(g_matrix[6], g_inverse, 6); }
void RunInverse9() { inverse_matrix(g_matrix[9], g_inverse, 9); }

void RunSphere100() { calculate_sphere_offset(g_x, g_y, g_z, 100, g_result, g_result + 3); }
void RunSphere300() { calculate_sphere_offset(g_x, g_y, g_z, 300, g_result, g_result + 3); }
void RunEllipsoid300() {
  calculate_magnetic_sfi_hdi(g_cx, g_cy, g_cz, 300, g_result, g_result + 3, g_result + 11);
}

// ---- soft-gyroscope input filters, with the profile's window lengths ----
std::vector<Vec3f> g_acc, g_mag;
size_t g_next = 0;

void SetupFilters() {
  ResetLibrary(0, Log::kSilent, CurrentFile::kAbsent);
  g_acc.clear();
  g_mag.clear();
  g_next = 0;
  for (int i = 0; i < 2000; ++i) {
    const Event ev = NextEvent();
    const Vec3f v = {ev.e.x, ev.e.y, ev.e.z};
    if (ev.sensor == qvn_test::Sensor::kAcc) g_acc.push_back(v);
    if (ev.sensor == qvn_test::Sensor::kMag) g_mag.push_back(v);
  }
  // The first sample after a reset only fills the rings.
  acc_data_filter_func(&g_acc[0].x, g_result, 1);
  mag_data_filter_func(&g_mag[0].x, g_result, 1);
}

void RunAccFilter() {
  acc_data_filter_func(&g_acc[g_next].x, g_result, 1);
  g_next = (g_next + 1) % g_acc.size();
}

void RunMagFilter() {
  mag_data_filter_func(&g_mag[g_next].x, g_result, 1);
  g_next = (g_next + 1) % g_mag.size();
}

// ---- distance test against a full batch: an admitted sample scans it all ----
float g_probe[2][3];
int g_probe_next = 0;

void SetupEffective(int16_t n) {
  MakeBatch();
  for (int i = 0; i < n; ++i) {
    dsc_data_mag[0][i] = g_x[i];
    dsc_data_mag[1][i] = g_y[i];
    dsc_data_mag[2][i] = g_z[i];
  }
  dsc_data_num = n;
  for (int p = 0; p < 2; ++p) {
    g_probe[p][0] = g_x[p] + kFarAway;
    g_probe[p][1] = g_y[p] + kFarAway;
    g_probe[p][2] = g_z[p] + kFarAway;
  }
}
void SetupEffective100() { SetupEffective(100); }
void SetupEffective300() { SetupEffective(300); }
void RunEffective() {
  mag_is_effective(g_probe[g_probe_next]);
  g_probe_next ^= 1;
}

}  // namespace

std::vector<Operation> KernelOperations() {
  return {
      {"inverse_matrix/4", "-", MakeBatch, nullptr, RunInverse4},
      {"inverse_matrix/6", "-", MakeBatch, nullptr, RunInverse6},
      {"inverse_matrix/9", "<= 600 ns", MakeBatch, nullptr, RunInverse9},
      {"sphere_fit/100", "-", MakeBatch, nullptr, RunSphere100},
      {"sphere_fit/300", "<= 600 ns", MakeBatch, nullptr, RunSphere300},
      {"ellipsoid_fit/300", "<= 12 us", MakeBatch, nullptr, RunEllipsoid300},
      {"soft_gyro_filter/acc", "-", SetupFilters, nullptr, RunAccFilter},
      {"soft_gyro_filter/mag", "-", SetupFilters, nullptr, RunMagFilter},
      {"mag_is_effective/100", "-", SetupEffective100, nullptr, RunEffective},
      {"mag_is_effective/300", "-", SetupEffective300, nullptr, RunEffective},
  };
}

}  // namespace qvn_bench
