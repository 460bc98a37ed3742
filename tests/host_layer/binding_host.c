/*
 * A sensor-service stand-in for the symbol-binding test. It loads the core
 * with dlopen, replays a deterministic calibration movement through the entry
 * table and prints one digest of every output bit.
 *
 * Built twice: plainly, and with COLLIDE (and -rdynamic, so that its symbols
 * are in the process's global scope) defining a function and variables under
 * names the library also defines. The library must compute the same bits in
 * both, and never call the host's function.
 *
 *   binding_host LIBRARY            -> "digest <hex> calls <n> offset x y z acc a"
 *   binding_host LIBRARY tunables   -> checks that writes by dlsym reach the library
 */
#include <dlfcn.h>
#include <math.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include "qvnlib/qvnlib.h"

#ifdef COLLIDE
/* Same names as the library's own: a matrix inversion that always fails,
 * work matrices and a tunable with other contents. */
int host_inverse_calls = 0;
int16_t inverse_matrix(const float in[81], float out[81], uint8_t n) {
  (void)in;
  (void)n;
  ++host_inverse_calls;
  memset(out, 0x7f, 81 * sizeof(float));
  return 0;
}
float DM[81] = {1e30f};
float invDM[81] = {1e30f};
float BRM[9] = {7.0f, 7.0f, 7.0f, 7.0f, 7.0f, 7.0f, 7.0f, 7.0f, 7.0f};
float g_kmf_q = 1e6f;
#else
static int host_inverse_calls = 0;
#endif

static uint64_t g_digest = 1469598103934665603ull;

static void Fold(const void *p, size_t n) {
  const unsigned char *b = (const unsigned char *)p;
  for (size_t i = 0; i < n; ++i) g_digest = (g_digest ^ b[i]) * 1099511628211ull;
}

/* A phone turning about three axes in a 45 uT field with a hard-iron offset
 * of (30, -20, 50) uT; 50 Hz, 40 s. */
static void Movement(int i, float acc[3], float gyr[3], float mag[3]) {
  double t = i / 50.0;
  double a = 0.9 * t, b = 0.55 * t, c = 0.31 * t;
  double ca = cos(a), sa = sin(a), cb = cos(b), sb = sin(b), cc = cos(c), sc = sin(c);
  /* world field (0, 20, -40) and gravity (0, 0, 9.81) seen through R = Rz(a) Ry(b) Rx(c) */
  double r[3][3] = {{ca * cb, ca * sb * sc - sa * cc, ca * sb * cc + sa * sc},
                    {sa * cb, sa * sb * sc + ca * cc, sa * sb * cc - ca * sc},
                    {-sb, cb * sc, cb * cc}};
  const double f[3] = {0.0, 20.0, -40.0}, g[3] = {0.0, 0.0, 9.81}, off[3] = {30.0, -20.0, 50.0};
  for (int k = 0; k < 3; ++k) {
    mag[k] = (float)(r[0][k] * f[0] + r[1][k] * f[1] + r[2][k] * f[2] + off[k]);
    acc[k] = (float)(r[0][k] * g[0] + r[1][k] * g[1] + r[2][k] * g[2]);
  }
  gyr[0] = 0.31f;
  gyr[1] = 0.55f;
  gyr[2] = 0.9f;
}

static int Replay(const QvnLibApiTable *api) {
  ChipInfo chip = {0, 0, 1};
  api->QVN_CaliInitLib(&chip);
  const QvnFusionGetFn getters[] = {api->QVN_FusionGetGravity, api->QVN_FusionGetRotationVector,
                                    api->QVN_FusionGetOrientation, api->QVN_FusionGetLinearaccel,
                                    api->QVN_FusionGetGeoMagnetic};
  CaliResult r;
  memset(&r, 0, sizeof r);
  for (int i = 0; i < 2000; ++i) {
    float acc[3], gyr[3], mag[3];
    Movement(i, acc, gyr, mag);
    int64_t t = 1000000000LL + (int64_t)i * 20000000LL;
    SensorEvent a = {t, acc[0], acc[1], acc[2], 3};
    SensorEvent m = {t + 1, mag[0], mag[1], mag[2], 3};
    SensorEvent g = {t + 2, gyr[0], gyr[1], gyr[2], 3};
    api->QVN_CaliApiSetAccelData(&a);
    api->QVN_CaliApiSetMagData(&m);
    api->QVN_DoCaliAPI(&m, &r);
    api->QVN_CaliApiSetGyroData(&g);
    Fold(&r, 33);
    for (size_t k = 0; k < sizeof getters / sizeof getters[0]; ++k) {
      FusionEvent e;
      getters[k](&e);
      Fold(&e, 33);
    }
  }
  printf("digest %016llx calls %d offset %.3f %.3f %.3f acc %d\n", (unsigned long long)g_digest,
         host_inverse_calls, (double)r.bias_x, (double)r.bias_y, (double)r.bias_z, r.accuracy);
  return 0;
}

/* Writes by name must change what the library computes. */
static int Tunables(void *lib, const QvnLibApiTable *api) {
  ChipInfo chip = {0, 0, 0};
  api->QVN_CaliInitLib(&chip);
  float *hdi = (float *)dlsym(lib, "hdi_array");
  int32_t *nfc = (int32_t *)dlsym(lib, "hashasNFC");
  float *ratio = (float *)dlsym(lib, "output_mag_lpf_ratio");
  if (hdi == NULL || nfc == NULL || ratio == NULL) {
    printf("missing names\n");
    return 1;
  }
  hdi[0] = 12.5f;
  float got[3];
  api->QVN_CaliApiGetOffset(got);
  /* The output low-pass on the NFC variant with ratio 0 holds its start, 0. */
  *nfc = 1;
  *ratio = 0.0f;
  SensorEvent m = {2000000000LL, 10.0f, 20.0f, 30.0f, 3};
  CaliResult r;
  api->QVN_CaliApiSetMagData(&m);
  api->QVN_DoCaliAPI(&m, &r);
  printf("offset %.3f lowpass %.3f %.3f %.3f\n", (double)got[0], (double)r.x, (double)r.y,
         (double)r.z);
  return 0;
}

int main(int argc, char **argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: binding_host LIBRARY [tunables]\n");
    return 2;
  }
  void *lib = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  if (lib == NULL) {
    fprintf(stderr, "%s\n", dlerror());
    return 1;
  }
  void (*sysfs)(const char *) = (void (*)(const char *))dlsym(lib, "qvn_host_set_sysfs_root");
  if (sysfs != NULL) sysfs("/nonexistent-power-supply");
  const QvnLibApiTable *api = (const QvnLibApiTable *)dlsym(lib, QVNLIB_TABLE_SYMBOL);
  if (api == NULL) return 1;
  if (argc > 2 && strcmp(argv[2], "tunables") == 0) return Tunables(lib, api);
  return Replay(api);
}
