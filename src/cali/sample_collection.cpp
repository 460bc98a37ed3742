// The calibration sample batch: which samples are kept, how much the
// gyroscope turned over the batch, and how the batch is thinned afterwards.
//
// Samples live in planar buffers, one plane of 300 floats per axis. A new
// magnetometer sample is kept only if a low-passed reference
//   pre <- (sample - pre) * 0.8 + pre
// lies at least dsc_mag_distance (uT) from every stored sample, so the batch
// spreads over the sphere instead of piling up where the device rests.
// The counts and sizes that index the planes can be written by a host, so
// every use clamps them to the buffer capacity (negative counts as 0).
#include <math.h>
#include <string.h>

#include "cali/batch.h"
#include "cali/cali.h"
#include "math/convert.h"
#include "math/math.h"
#include "math/root_compare.h"
#include "math/simd.h"

namespace {

constexpr double kReferenceGain = 0.8;  // weight of the new sample in the reference
constexpr double kQuietRate = 0.02;     // rad/s, at or below: the device is at rest
constexpr float kHalf = 0.5f;

void MovePlane(float *plane, int16_t from, int16_t count) {
  memmove(plane, plane + from, static_cast<size_t>(count) * sizeof(float));
}

int16_t CountTurning(const float *plane, int16_t n) {
  int16_t c = 0;
  for (int16_t i = 0; i < n; ++i) {
    const float a = fabsf(plane[i]);
    if (a > gyr_filter_min && a < gyr_filter_max) ++c;
  }
  return c;
}

bool SpreadInBounds(float s) {
  return s > fss_mag_effective_stdev_min && s < fss_mag_effective_stdev_max;
}

// The squared spacing for the spacing in force. The driver rewrites
// dsc_mag_distance every sample, nearly always with the same value, so the
// last answer is kept.
float SquaredSpacing(float spacing) {
  static uint32_t last_bits = 0;  // the bits of +0, whose answer is +0
  static float last_squared = 0.0f;
  uint32_t bits;
  memcpy(&bits, &spacing, sizeof bits);
  if (bits != last_bits) {
    last_bits = bits;
    last_squared = qvn::SquaredLimit(spacing);
  }
  return last_squared;
}

// True when some stored sample lies closer than the spacing to p. The
// squared distance is formed exactly as (dx*dx + dy*dy) + dz*dz and
// compared with the squared spacing, which decides every sample as
// sqrtf(d2) < spacing does; eight samples are tested per round.
bool AnyStoredWithin(int16_t n, float px, float py, float pz, float spacing) {
  using qvn::simd::F4;
  const float limit = SquaredSpacing(spacing);
  const F4 vx = qvn::simd::Splat(px), vy = qvn::simd::Splat(py), vz = qvn::simd::Splat(pz);
  const F4 vlimit = qvn::simd::Splat(limit);
  const float *xs = dsc_data_mag[0], *ys = dsc_data_mag[1], *zs = dsc_data_mag[2];
  int16_t i = 0;
  for (; i + 8 <= n; i += 8) {
    const F4 dx0 = qvn::simd::Load(xs + i) - vx, dx1 = qvn::simd::Load(xs + i + 4) - vx;
    const F4 dy0 = qvn::simd::Load(ys + i) - vy, dy1 = qvn::simd::Load(ys + i + 4) - vy;
    const F4 dz0 = qvn::simd::Load(zs + i) - vz, dz1 = qvn::simd::Load(zs + i + 4) - vz;
    const F4 d0 = (dx0 * dx0 + dy0 * dy0) + dz0 * dz0;
    const F4 d1 = (dx1 * dx1 + dy1 * dy1) + dz1 * dz1;
    if (qvn::simd::Any((d0 < vlimit) | (d1 < vlimit))) return true;
  }
  for (; i < n; ++i) {
    const float dx = xs[i] - px;
    const float dy = ys[i] - py;
    const float dz = zs[i] - pz;
    if ((dx * dx + dy * dy) + dz * dz < limit) return true;
  }
  return false;
}

}  // namespace

int16_t mag_is_effective(const float sample[3]) {
  // The first sample of a batch becomes the reference as it is.
  if (dsc_data_num == 0) {
    dsc_pre_mag.x = sample[0];
    dsc_pre_mag.y = sample[1];
    dsc_pre_mag.z = sample[2];
    return 1;
  }
  // The reference moves for every tested sample, kept or not. The difference
  // is a float; the blend is done in double and narrowed once.
  float *pre[3] = {&dsc_pre_mag.x, &dsc_pre_mag.y, &dsc_pre_mag.z};
  for (int a = 0; a < 3; ++a) {
    const float diff = sample[a] - *pre[a];
    *pre[a] = static_cast<float>(static_cast<double>(diff) * kReferenceGain +
                                 static_cast<double>(*pre[a]));
  }
  // Rejected when any stored sample is nearer than the spacing; which one is
  // found first does not matter, nothing else depends on it.
  const int16_t n = qvn::BatchCount(dsc_data_num);
  if (AnyStoredWithin(n, dsc_pre_mag.x, dsc_pre_mag.y, dsc_pre_mag.z, dsc_mag_distance)) return 0;
  return 1;
}

int16_t gyro_is_effective(void) {
  const int16_t n = qvn::BatchCount(dsc_data_size);
  const int16_t cx = CountTurning(ctn_data_gyr[0], n);
  const int16_t cy = CountTurning(ctn_data_gyr[1], n);
  const int16_t cz = CountTurning(ctn_data_gyr[2], n);

  const float t = fss_gyr_effective_ratio * static_cast<float>(n);
  const int32_t full = qvn::TruncToI32(t);
  const int32_t half = qvn::TruncToI32(t * kHalf);
  int16_t grade = 0;
  if (cx >= full && cy >= full && cz >= full) {
    grade = 2;
  } else if (cx >= half && cy >= half && cz >= half) {
    grade = 1;
  }

  const float sx = sensor_data_stdev(dsc_data_mag[0], n);
  const float sy = sensor_data_stdev(dsc_data_mag[1], n);
  const float sz = sensor_data_stdev(dsc_data_mag[2], n);
  if (grade != 0 && SpreadInBounds(sx) && SpreadInBounds(sy) && SpreadInBounds(sz)) ++grade;
  // Level 2 has never been reported: partial rotation and full rotation with
  // a poor spread both read as 1, so callers only ever see 0, 1 or 3.
  return grade == 2 ? 1 : grade;
}

void dsc_data_discard(void) {
  const int16_t n = qvn::BatchCount(dsc_data_size);
  // Sample 2k+1 moves to index k: half of the old batch seeds the next one.
  for (int a = 0; a < 3; ++a) {
    float *plane = dsc_data_mag[a];
    for (int16_t k = 0; 2 * k + 1 < n; ++k) plane[k] = plane[2 * k + 1];
  }
  dsc_data_num = static_cast<int16_t>(n / 2);
}

void ctn_data_discard(int16_t start) {
  const int16_t n = qvn::BatchCount(dsc_data_size);
  if (n <= start) {
    dsc_data_num = 0;
    return;
  }
  // Skip the samples taken at rest after the dropped ones, so the batch never
  // starts with a quiet sample. Any axis above the limit stops the scan.
  int16_t k = start < 0 ? 0 : start;
  while (k < n && static_cast<double>(fabsf(ctn_data_gyr[0][k])) <= kQuietRate &&
         static_cast<double>(fabsf(ctn_data_gyr[1][k])) <= kQuietRate &&
         static_cast<double>(fabsf(ctn_data_gyr[2][k])) <= kQuietRate) {
    ++k;
  }
  const int16_t m = static_cast<int16_t>(n - k);
  for (int a = 0; a < 3; ++a) {
    MovePlane(dsc_data_mag[a], k, m);
    MovePlane(ctn_data_gyr[a], k, m);
  }
  MovePlane(ctn_data_gdt, k, m);
  dsc_data_num = m;
}

namespace qvn {

bool AdmitAndAppend(const float mag[3]) {
  if (mag_is_effective(mag) == 0) {
    const int16_t rejected = dsc_reset_count;
    dsc_reset_count = static_cast<int16_t>(rejected + 1);
    const int16_t limit = (dsc_reset_threshold == 0) ? dsc_data_size : dsc_reset_threshold;
    // The old count is compared, so the batch goes on the (limit + 2)-th
    // consecutive rejection: the device rests and the batch is stale.
    if (rejected > limit) {
      dsc_reset_count = 0;
      dsc_data_num = 0;
    }
    return false;
  }
  dsc_reset_count = 0;
  const int16_t slot = BatchWriteSlot(dsc_data_num);
  dsc_data_mag[0][slot] = mag[0];
  dsc_data_mag[1][slot] = mag[1];
  dsc_data_mag[2][slot] = mag[2];
  dsc_data_num = static_cast<int16_t>(dsc_data_num + 1);
  return true;
}

}  // namespace qvn
