// Input filters of the soft gyroscope: a running median followed by a running
// mean of those medians, one pair of rings per sensor.
//
//   median_k = element (n_s - 1) / 2 of the last n_s inputs sorted descending
//   out_k    = sum over the last n_a medians of (median / n_a), slot order
//
// Units are those of the input (m/s^2 or uT). The accelerometer and the
// magnetometer run the same code over their own rings; only the capacity of
// the mean ring differs (40 against 32 entries per row).
//
// The window lengths and ring counts are exported and a host may write any
// value into them, so every index is brought inside the window and inside the
// ring's capacity where it is used. A length below 1 acts as a window of one
// sample.
#include <string.h>

#include "fusion/fusion.h"
#include "math/convert.h"
#include "math/math.h"
#include "fusion/window_stats.h"

namespace {

// Accepted range of the rate dead band (deg/s) for filter setting 3.
constexpr float kDeadBandMin = 0.0f;
constexpr float kDeadBandMax = 1.0f;

// One sensor's rings and counters. The mean rows are held as row pointers
// because the two sensors' mean rings have different row strides.
struct FilterRings {
  const int16_t &sort_num;
  const int16_t &avg_num;
  int16_t &sort_cnt;
  int16_t &avg_cnt;
  float (*sort)[QVN_SORT_CAPACITY];
  float *mean[3];
  int16_t mean_capacity;
};

FilterRings AccRings() {
  return {acc_sort_num, acc_avg_num, acc_sort_cnt, acc_avg_cnt, acc_sort,
          {acc_old[0], acc_old[1], acc_old[2]}, QVN_ACC_MEAN_CAPACITY};
}

FilterRings MagRings() {
  return {mag_sort_num, mag_avg_num, mag_sort_cnt, mag_avg_cnt, mag_sort,
          {mag_old[0], mag_old[1], mag_old[2]}, QVN_MAG_MEAN_CAPACITY};
}

// Window length actually used: at least one sample, at most the capacity.
int16_t UsableWindow(int16_t n, int16_t capacity) {
  if (n < 1) return 1;
  return n > capacity ? capacity : n;
}

// A count that a host left outside the window restarts at slot 0.
int16_t UsableSlot(int16_t slot, int16_t window) {
  return (slot < 0 || slot >= window) ? 0 : slot;
}

int16_t RunFilter(FilterRings r, const float in[3], float out[3], uint16_t flag) {
  // An all-zero sample is what an idle sensor buffer holds: refuse it.
  if (in[0] == 0.0f && in[1] == 0.0f && in[2] == 0.0f) return 0;
  if (flag == 0) return sensor_data_normalize(out, in) != 0 ? 1 : 0;

  const int16_t ns = UsableWindow(r.sort_num, QVN_SORT_CAPACITY);
  const int16_t na = UsableWindow(r.avg_num, r.mean_capacity);
  const int16_t s = UsableSlot(r.sort_cnt, ns);

  // A zero slot in every row is the state a reset leaves: seed both rings
  // with this sample so the output starts at the input instead of rising
  // from zero. The counts stay where they are.
  if (r.sort[0][s] == 0.0f && r.sort[1][s] == 0.0f && r.sort[2][s] == 0.0f) {
    for (int axis = 0; axis < 3; ++axis) {
      for (int16_t k = 0; k < ns; ++k) r.sort[axis][k] = in[axis];
      for (int16_t k = 0; k < na; ++k) r.mean[axis][k] = in[axis];
      out[axis] = in[axis];
    }
    return 1;
  }

  for (int axis = 0; axis < 3; ++axis) r.sort[axis][s] = in[axis];
  r.sort_cnt = static_cast<int16_t>(s + 1 >= ns ? 0 : s + 1);

  const int16_t c = UsableSlot(r.avg_cnt, na);
  float med[3];
  const float *const sort_rows[3] = {r.sort[0], r.sort[1], r.sort[2]};
  qvn::window::Medians(sort_rows, ns, med);
  for (int axis = 0; axis < 3; ++axis) r.mean[axis][c] = med[axis];
  r.avg_cnt = static_cast<int16_t>(c + 1 >= na ? 0 : c + 1);

  // Each entry is divided before it is added, in slot order: the rounding of
  // this sum is part of the output.
  const float *const mean_rows[3] = {r.mean[0], r.mean[1], r.mean[2]};
  qvn::window::Means(mean_rows, na, r.mean_capacity, out);
  return 1;
}

// Clears the first n entries of a row, n limited to the row's capacity.
void ClearRow(float *row, int16_t n, int16_t capacity) {
  if (n < 1) return;
  memset(row, 0, sizeof(float) * static_cast<size_t>(n > capacity ? capacity : n));
}

// A length from a profile, truncated, with anything above the ring's
// capacity stored as the capacity. The caller has checked that it is > 0.
int16_t StoredLength(float v, int16_t capacity) {
  if (v > static_cast<float>(capacity)) return capacity;
  return qvn::TruncToI16(v);
}

}  // namespace

void qvn_softgyro_initialize(void) {
  for (int i = 0; i < 3; ++i) {
    kmf_mag[i] = 0.0f;
    kmf_acc[i] = 0.0f;
    zdb_acc_pre[i] = 0.0f;
    zdb_mag_pre[i] = 0.0f;
    zdb_acc_prepre[i] = 0.0f;
    zdb_mag_prepre[i] = 0.0f;
  }
  // Only row 0 of the mean rings is cleared, with the lengths in force now;
  // rows 1 and 2 keep stale data, which the pre-fill of the first filtered
  // sample overwrites before anything reads them.
  for (int pass = 0; pass < 3; ++pass) {
    ClearRow(acc_old[0], acc_avg_num, QVN_ACC_MEAN_CAPACITY);
    ClearRow(mag_old[0], mag_avg_num, QVN_MAG_MEAN_CAPACITY);
  }
  // The median rows must read zero at slot 0 so that the next sample is
  // recognised as the first one.
  for (int axis = 0; axis < 3; ++axis) {
    ClearRow(acc_sort[axis], acc_sort_num, QVN_SORT_CAPACITY);
    ClearRow(mag_sort[axis], mag_sort_num, QVN_SORT_CAPACITY);
  }
  for (int i = 0; i < 9; ++i) BRM_ref_inv[i] = (i % 4 == 0) ? 1.0f : 0.0f;
  acc_sort_cnt = 0;
  acc_avg_cnt = 0;
  mag_sort_cnt = 0;
  mag_avg_cnt = 0;
}

int16_t set_softgyro_filter(int16_t kind, const float *params) {
  if (kind == 1 || kind == 2) {
    // params = {mean length, median length}; both must be positive or the
    // old setting stays. NaN fails the test and is ignored as well.
    if (params[0] > 0.0f && params[1] > 0.0f) {
      if (kind == 1) {
        acc_avg_num = StoredLength(params[0], QVN_ACC_MEAN_CAPACITY);
        acc_sort_num = StoredLength(params[1], QVN_SORT_CAPACITY);
      } else {
        mag_avg_num = StoredLength(params[0], QVN_MAG_MEAN_CAPACITY);
        mag_sort_num = StoredLength(params[1], QVN_SORT_CAPACITY);
      }
    }
    return 1;
  }
  if (kind == 3) {
    if (params[0] >= kDeadBandMin && params[0] <= kDeadBandMax) debounce_degree = params[0];
    return 1;
  }
  return 0;
}

int16_t acc_data_filter_func(const float in[3], float out[3], uint16_t flag) {
  return RunFilter(AccRings(), in, out, flag);
}

int16_t mag_data_filter_func(const float in[3], float out[3], uint16_t flag) {
  return RunFilter(MagRings(), in, out, flag);
}
