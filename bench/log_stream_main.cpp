// Prints every log line a library build writes while it replays a recording,
// so that the streams of two builds can be diffed byte for byte:
//
//   qvn_bench_log_stream LIB EVENTS.csv HWGYRO > lines.txt
//
// LIB is loaded by path, as a sensor service loads it. Each line is printed
// as "priority|tag|text" with the tag "(null)" when the library passes none
// and the control characters of the text escaped, so "\r\n" endings show.
// The log is at VERBOSE and the log switch on. The events (t_ns,sensor,x,y,z
// with sensor acc, gyr or mag; a header line is skipped) go through the entry
// table as a host hands them over, the seven getters after every magnetometer
// sample. A tail of extreme samples follows, two seconds apart so that the
// throttled lines take them: infinities, NaN of both signs, -0, the largest
// and smallest floats, values whose sixth decimal is a rounding tie.
// The power-supply files come from $QVN_SYSFS_ROOT, as for the library.
#include <android/log.h>
#include <dlfcn.h>
#include <float.h>
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "qvnlib/qvnlib.h"

namespace {

void PrintLine(const struct __android_logger_data *data, const char *message) {
  printf("%d|%s|", data->priority, data->tag != nullptr ? data->tag : "(null)");
  for (const unsigned char *p = reinterpret_cast<const unsigned char *>(message); *p != 0; ++p) {
    if (*p < 0x20 || *p == 0x7f || *p == '\\') {
      printf("\\x%02x", *p);
    } else {
      putchar(*p);
    }
  }
  putchar('\n');
}

const QvnLibApiTable *g_api;
CaliResult g_cali;
FusionEvent g_fusion;

void Hand(char sensor, long long t, float x, float y, float z) {
  const SensorEvent e = {t, x, y, z, 3};
  if (sensor == 'a') {
    g_api->QVN_CaliApiSetAccelData(&e);
  } else if (sensor == 'g') {
    g_api->QVN_CaliApiSetGyroData(&e);
  } else {
    g_api->QVN_CaliApiSetMagData(&e);
    g_api->QVN_DoCaliAPI(&e, &g_cali);
    const QvnFusionGetFn getters[] = {
        g_api->QVN_FusionGetGravity,           g_api->QVN_FusionGetRotationVector,
        g_api->QVN_FusionGetOrientation,       g_api->QVN_FusionGetLinearaccel,
        g_api->QVN_FusionGetGameRotationVector, g_api->QVN_FusionGetGeoMagnetic,
        g_api->QVN_FusionGetVirtualGyro};
    for (QvnFusionGetFn get : getters) get(&g_fusion);
  }
}

}  // namespace

int main(int argc, char **argv) {
  if (argc != 4) {
    fprintf(stderr, "usage: %s LIB EVENTS.csv HWGYRO\n", argv[0]);
    return 2;
  }
  __android_log_set_logger(PrintLine);
  __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
  void *lib = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  if (lib == nullptr) {
    fprintf(stderr, "cannot load %s: %s\n", argv[1], dlerror());
    return 1;
  }
  g_api = static_cast<const QvnLibApiTable *>(dlsym(lib, QVNLIB_TABLE_SYMBOL));
  FILE *in = fopen(argv[2], "r");
  if (g_api == nullptr || in == nullptr) {
    fprintf(stderr, "no entry table in %s or cannot read %s\n", argv[1], argv[2]);
    return 1;
  }
  const ChipInfo info = {0, 0, static_cast<int8_t>(atoi(argv[3]))};
  g_api->QVN_CaliInitLib(&info);
  g_api->QVN_FusionEnableLib(1);

  char row[256];
  char sensor[8];
  long long t = 0;
  float x, y, z;
  while (fgets(row, sizeof row, in) != nullptr) {
    if (sscanf(row, "%lld,%7[a-z],%f,%f,%f", &t, sensor, &x, &y, &z) == 5) Hand(sensor[0], t, x, y, z);
  }
  fclose(in);

  const float extremes[] = {INFINITY, -INFINITY, NAN,     -NAN,         -0.0f,   FLT_MAX,
                            -FLT_MAX, FLT_MIN,   1e-45f, -0.0000005f, 0.0078125f, -2.5e-6f,
                            1e20f,    -123456.789f, 0.9999995f, 16777217.0f};
  for (float v : extremes) {
    t += 2000000000;
    Hand('a', t, v, -v, v);
    Hand('g', t + 1, v, v, -v);
    Hand('m', t + 2, v, -v, 0.5f * v);
  }
  return 0;
}
