// libFuzzer harness: the calibration fits, their validators and the matrix
// inversion on arbitrary inputs and sizes.
//
// Input: a selector byte, a count (int16), a data-mode byte, then the data.
// Counts are clamped to the 300-sample buffers here, as the library's own
// callers clamp them; a negative count still reaches the int16 routines.
// Data are either decoded value by value (any float) or synthesised from a
// few decoded parameters (an ellipsoid with centre, axes and shear; a turning
// phone for the gyroscope-aided fit), so both garbage and near-valid batches
// reach the deep branches.
//
// inverse_matrix is also checked against its contract: the input is never
// modified, a failure leaves the output untouched, and a success writes only
// the top-left n x n corner.
#include <stdlib.h>
#include <string.h>

#include "cali/cali.h"
#include "fuzz_input.h"
#include "math/math.h"
#include "orbit.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace {

constexpr int kCap = QVN_BATCH_CAPACITY;
constexpr int kMatrixCells = 81;
constexpr uint32_t kSentinelBits = 0x7fc0deadu;  // a NaN no computation produces

float g_x[kCap], g_y[kCap], g_z[kCap];
float g_gx[kCap], g_gy[kCap], g_gz[kCap], g_dt[kCap];

// Unit directions spread over the sphere (Fibonacci lattice).
void Direction(int i, int n, double u[3]) {
  const double golden = 2.399963229728653;  // pi * (3 - sqrt 5)
  const double z = 1.0 - (2.0 * i + 1.0) / n;
  const double r = sqrt(1.0 - z * z);
  u[0] = r * cos(golden * i);
  u[1] = r * sin(golden * i);
  u[2] = z;
}

// Points c + L u, L lower-triangular (a 0 0; d b 0; e f c3): the shape the
// ellipsoid fit recovers.
void Ellipsoid(qvn_fuzz::Reader &r, int n) {
  float c[3], l[6];
  for (float &v : c) v = r.Float();
  for (float &v : l) v = r.Float();
  const float noise = r.Float();
  uint32_t lcg = r.U8() + 1u;
  for (int i = 0; i < n; ++i) {
    double u[3];
    Direction(i, n, u);
    float p[3] = {static_cast<float>(l[0] * u[0]),
                  static_cast<float>(l[3] * u[0] + l[1] * u[1]),
                  static_cast<float>(l[4] * u[0] + l[5] * u[1] + l[2] * u[2])};
    for (float &v : p) {
      lcg = lcg * 1664525u + 1013904223u;
      v += noise * (static_cast<float>(lcg >> 8) / 8388608.0f - 1.0f);
    }
    g_x[i] = c[0] + p[0];
    g_y[i] = c[1] + p[1];
    g_z[i] = c[2] + p[2];
  }
}

void Fill(qvn_fuzz::Reader &r, int n, bool synthetic, bool with_gyro) {
  if (synthetic && with_gyro) {
    const qvn_fuzz::OrbitParams p = qvn_fuzz::ReadOrbit(r);
    for (int i = 0; i < n; ++i) {
      const qvn_fuzz::OrbitSample s = qvn_fuzz::OrbitAt(p, i % p.samples);
      g_x[i] = s.mag[0], g_y[i] = s.mag[1], g_z[i] = s.mag[2];
      g_gx[i] = s.gyr[0], g_gy[i] = s.gyr[1], g_gz[i] = s.gyr[2];
      g_dt[i] = static_cast<float>(p.step_ns * 1e-9);
    }
    return;
  }
  if (synthetic) {
    Ellipsoid(r, n);
    return;
  }
  for (int i = 0; i < n; ++i) {
    g_x[i] = r.Float(), g_y[i] = r.Float(), g_z[i] = r.Float();
    if (with_gyro) g_gx[i] = r.Float(), g_gy[i] = r.Float(), g_gz[i] = r.Float(), g_dt[i] = r.Float();
  }
}

void Check(bool ok) {
  if (!ok) abort();
}

void FuzzInverse(qvn_fuzz::Reader &r) {
  const uint8_t n = r.U8();
  const uint8_t mode = r.U8();
  float in[kMatrixCells], out[kMatrixCells];
  for (float &v : in) v = r.Float();
  if (mode & 1u) {
    // Symmetric positive semi-definite B^T B, as the normal equations are.
    float b[kMatrixCells];
    memcpy(b, in, sizeof b);
    for (int i = 0; i < 9; ++i)
      for (int j = 0; j < 9; ++j) {
        float s = 0.0f;
        for (int k = 0; k < 9; ++k) s += b[9 * k + i] * b[9 * k + j];
        in[9 * i + j] = s;
      }
  }
  if (mode & 2u) in[0] = 0.0f;  // forces the row exchange
  float in_copy[kMatrixCells];
  memcpy(in_copy, in, sizeof in);
  for (float &v : out) memcpy(&v, &kSentinelBits, sizeof v);
  const int16_t ok = inverse_matrix(in, out, n);
  Check(memcmp(in, in_copy, sizeof in) == 0);
  Check(ok == 0 || ok == 1);
  if (n < 2 || n > 9) Check(ok == 0);
  for (int i = 0; i < 9; ++i)
    for (int j = 0; j < 9; ++j) {
      uint32_t bits;
      memcpy(&bits, &out[9 * i + j], sizeof bits);
      const bool corner = ok == 1 && i < n && j < n;
      if (!corner) Check(bits == kSentinelBits);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  qvn_fuzz::Reader r(data, size);
  const uint8_t which = static_cast<uint8_t>(r.U8() % 6u);
  if (which == 5) {
    FuzzInverse(r);
    return 0;
  }
  int16_t n = r.I16();
  if (n > kCap) n = kCap;                      // the callers' clamp
  const uint16_t un = n < 0 ? 0 : static_cast<uint16_t>(n);
  const uint8_t mode = r.U8();
  const bool with_gyro = which == 2;
  Fill(r, n < 0 ? 0 : n, (mode & 1u) != 0, with_gyro);
  float hdi[3] = {r.Float(), r.Float(), r.Float()};
  float sfi[9];
  for (float &v : sfi) v = r.Float();
  float radius = r.Float();
  float scale = 0.0f;
  switch (which) {
    case 0: calculate_sphere_offset(g_x, g_y, g_z, n, hdi, &radius); break;
    case 1: calculate_magnetic_sfi_hdi(g_x, g_y, g_z, un, hdi, sfi, &scale); break;
    case 2: calculate_hdi_by_gyroscope(g_x, g_y, g_z, g_gx, g_gy, g_gz, g_dt, n, hdi); break;
    case 3: dsc_sfi_hdi_is_valid(g_x, g_y, g_z, un, hdi, sfi, radius); break;
    default: fss_hdi_is_valid(g_x, g_y, g_z, un, hdi, &radius); break;
  }
  return 0;
}
