/* Tiny host of libqvnlib: initialises through the exported table, feeds a
 * few seconds of a still phone, reads every output and checks what a sensor
 * service relies on (entry results, timestamps, accuracy range, the offset
 * round trip). Prints "consumer ok" and exits 0 when all hold. */
#include <math.h>
#include <stdio.h>
#include <string.h>

#include <qvnlib/qvnlib.h>

static int failures = 0;

static void check(int ok, const char *what) {
  if (!ok) {
    fprintf(stderr, "consumer: %s\n", what);
    ++failures;
  }
}

int main(void) {
  const QvnLibApiTable *api = &MAG_LIB_API_INTERFACE;
  const ChipInfo chip = {1, 8, 0};
  const float offset_in[3] = {12.5f, -3.25f, 40.0f};
  float offset_out[3] = {0.0f, 0.0f, 0.0f};
  CaliResult cali;
  FusionEvent fused;
  int64_t t = 1000000000;
  int i;

  check(strcmp(api->name, "libqvnlib") == 0, "table name");
  check(api->QVN_CaliInitLib == QVN_CaliInitLib, "table slot 1");
  check(api->QVN_CaliInitLib(&chip) == 0, "init result");
  check(api->QVN_FusionEnableLib(5) == 5, "enable returns its argument");
  for (i = 0; i < 150; ++i) {
    const SensorEvent acc = {t, 0.0f, 0.0f, 9.81f, 3};
    const SensorEvent gyr = {t, 0.0f, 0.0f, 0.0f, 3};
    const SensorEvent mag = {t, 25.0f, 5.0f, -38.0f, 3};
    check(api->QVN_CaliApiSetAccelData(&acc) == 0, "accel result");
    check(api->QVN_CaliApiSetGyroData(&gyr) == 0, "gyro result");
    check(api->QVN_CaliApiSetMagData(&mag) == 0, "mag result");
    memset(&cali, 0, sizeof cali);
    check(api->QVN_DoCaliAPI(&mag, &cali) == 0, "calibration result");
    check(cali.timestamp == t, "calibration timestamp");
    check(cali.accuracy >= 0 && cali.accuracy <= 3, "accuracy range");
    t += 20000000;
  }
  memset(&fused, 0xff, sizeof fused);
  check(api->QVN_FusionGetGeoMagnetic(&fused) == 0, "geomagnetic result");
  check(fused.values[3] == 0.0f, "geomagnetic values[3]");
  check(api->QVN_CaliApiSetOffset(offset_in) == 0, "set offset");
  check(api->QVN_CaliApiGetOffset(offset_out) == 0, "get offset");
  check(memcmp(offset_in, offset_out, sizeof offset_in) == 0, "offset round trip");
  if (failures != 0) return 1;
  printf("consumer ok\n");
  return 0;
}
