/*
 * libqvnlib host interface.
 *
 * A sensor service loads libqvnlib.so, looks up MAG_LIB_API_INTERFACE and
 * drives magnetometer calibration and sensor fusion through its 15 entry
 * points. The records below cross the boundary by value layout (little-endian,
 * natural alignment); their offsets and sizes are part of the interface and
 * are checked at compile time. Usable from C99 and C++.
 *
 * Calling order: QVN_CaliInitLib once; then per accelerometer / gyroscope
 * sample QVN_CaliApiSetAccelData / QVN_CaliApiSetGyroData; per magnetometer
 * sample QVN_CaliApiSetMagData followed by QVN_DoCaliAPI; the getters at any
 * time. All calls from one thread: the library takes no locks.
 */
#ifndef QVNLIB_QVNLIB_H
#define QVNLIB_QVNLIB_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Three float32 components x, y, z. */
typedef struct Vec3f {
  float x;
  float y;
  float z;
} Vec3f;

/* One input sample, host -> library. */
typedef struct SensorEvent {
  int64_t timestamp; /* ns */
  float x;           /* m/s^2, rad/s or uT depending on the sensor */
  float y;
  float z;
  int32_t accuracy; /* host status of the sample; only logged */
} SensorEvent;

/* Calibration output of QVN_DoCaliAPI. */
typedef struct CaliResult {
  int64_t timestamp; /* copied from the magnetometer sample, ns */
  float x;           /* calibrated field, uT */
  float y;
  float z;
  float bias_x; /* hard-iron offset in use, uT */
  float bias_y;
  float bias_z;
  int8_t accuracy; /* 0 (unreliable) .. 3 (high) */
  uint8_t tail_padding_[7]; /* never written by the library */
} CaliResult;

/* Fusion output of the QVN_FusionGet* entries. */
typedef struct FusionEvent {
  int64_t timestamp; /* ns */
  float values[4];   /* values[3] is 0 for three-value outputs */
  uint8_t reserved[8]; /* always written as zero */
  int8_t accuracy;
  uint8_t tail_padding_[7]; /* never written by the library */
} FusionEvent;

/* Argument of QVN_CaliInitLib. Only the first 9 bytes are read. */
typedef struct ChipInfo {
  int32_t layout;   /* only logged */
  int32_t deviceid; /* only logged */
  int8_t hwGyro;    /* 1: hardware gyroscope present, 0: none */
} ChipInfo;

typedef int32_t (*QvnInitFn)(const ChipInfo *info);
typedef int32_t (*QvnEnableFn)(int32_t enable);
typedef int32_t (*QvnGetOffsetFn)(float out[3]);
typedef int32_t (*QvnSetOffsetFn)(const float in[3]);
typedef int32_t (*QvnSetDataFn)(const SensorEvent *event);
typedef int32_t (*QvnDoCaliFn)(const SensorEvent *mag, CaliResult *out);
typedef int32_t (*QvnFusionGetFn)(FusionEvent *out);

/* The exported entry table: 16 pointer-sized slots. */
typedef struct QvnLibApiTable {
  const char *name; /* "libqvnlib" */
  QvnInitFn QVN_CaliInitLib;
  QvnEnableFn QVN_FusionEnableLib;
  QvnGetOffsetFn QVN_CaliApiGetOffset;
  QvnSetOffsetFn QVN_CaliApiSetOffset;
  QvnSetDataFn QVN_CaliApiSetGyroData;
  QvnSetDataFn QVN_CaliApiSetAccelData;
  QvnSetDataFn QVN_CaliApiSetMagData;
  QvnDoCaliFn QVN_DoCaliAPI;
  QvnFusionGetFn QVN_FusionGetGravity;
  QvnFusionGetFn QVN_FusionGetRotationVector;
  QvnFusionGetFn QVN_FusionGetOrientation;
  QvnFusionGetFn QVN_FusionGetLinearaccel;
  QvnFusionGetFn QVN_FusionGetGameRotationVector;
  QvnFusionGetFn QVN_FusionGetGeoMagnetic;
  QvnFusionGetFn QVN_FusionGetVirtualGyro;
} QvnLibApiTable;

#define QVNLIB_TABLE_SYMBOL "MAG_LIB_API_INTERFACE"

#if defined(__GNUC__)
#define QVNLIB_API __attribute__((visibility("default")))
#else
#define QVNLIB_API
#endif

QVNLIB_API extern const QvnLibApiTable MAG_LIB_API_INTERFACE;

QVNLIB_API int32_t QVN_CaliInitLib(const ChipInfo *info);
QVNLIB_API int32_t QVN_FusionEnableLib(int32_t enable);
QVNLIB_API int32_t QVN_CaliApiGetOffset(float out[3]);
QVNLIB_API int32_t QVN_CaliApiSetOffset(const float in[3]);
QVNLIB_API int32_t QVN_CaliApiSetGyroData(const SensorEvent *event);
QVNLIB_API int32_t QVN_CaliApiSetAccelData(const SensorEvent *event);
QVNLIB_API int32_t QVN_CaliApiSetMagData(const SensorEvent *event);
QVNLIB_API int32_t QVN_DoCaliAPI(const SensorEvent *mag, CaliResult *out);
QVNLIB_API int32_t QVN_FusionGetGravity(FusionEvent *out);
QVNLIB_API int32_t QVN_FusionGetRotationVector(FusionEvent *out);
QVNLIB_API int32_t QVN_FusionGetOrientation(FusionEvent *out);
QVNLIB_API int32_t QVN_FusionGetLinearaccel(FusionEvent *out);
QVNLIB_API int32_t QVN_FusionGetGameRotationVector(FusionEvent *out);
QVNLIB_API int32_t QVN_FusionGetGeoMagnetic(FusionEvent *out);
QVNLIB_API int32_t QVN_FusionGetVirtualGyro(FusionEvent *out);

#ifdef __cplusplus
} /* extern "C" */
#define QVNLIB_STATIC_ASSERT(c, m) static_assert(c, m)
#else
#define QVNLIB_STATIC_ASSERT(c, m) _Static_assert(c, m)
#endif

/* Byte layout of the boundary records (little-endian AArch64 / x86_64). */
QVNLIB_STATIC_ASSERT(sizeof(Vec3f) == 12, "Vec3f size");
QVNLIB_STATIC_ASSERT(offsetof(Vec3f, x) == 0 && offsetof(Vec3f, y) == 4 &&
                         offsetof(Vec3f, z) == 8,
                     "Vec3f offsets");

QVNLIB_STATIC_ASSERT(offsetof(SensorEvent, timestamp) == 0, "SensorEvent.timestamp");
QVNLIB_STATIC_ASSERT(offsetof(SensorEvent, x) == 8, "SensorEvent.x");
QVNLIB_STATIC_ASSERT(offsetof(SensorEvent, y) == 12, "SensorEvent.y");
QVNLIB_STATIC_ASSERT(offsetof(SensorEvent, z) == 16, "SensorEvent.z");
QVNLIB_STATIC_ASSERT(offsetof(SensorEvent, accuracy) == 20, "SensorEvent.accuracy");
QVNLIB_STATIC_ASSERT(sizeof(SensorEvent) == 24, "SensorEvent size");

QVNLIB_STATIC_ASSERT(offsetof(CaliResult, timestamp) == 0, "CaliResult.timestamp");
QVNLIB_STATIC_ASSERT(offsetof(CaliResult, x) == 8, "CaliResult.x");
QVNLIB_STATIC_ASSERT(offsetof(CaliResult, y) == 12, "CaliResult.y");
QVNLIB_STATIC_ASSERT(offsetof(CaliResult, z) == 16, "CaliResult.z");
QVNLIB_STATIC_ASSERT(offsetof(CaliResult, bias_x) == 20, "CaliResult.bias_x");
QVNLIB_STATIC_ASSERT(offsetof(CaliResult, bias_y) == 24, "CaliResult.bias_y");
QVNLIB_STATIC_ASSERT(offsetof(CaliResult, bias_z) == 28, "CaliResult.bias_z");
QVNLIB_STATIC_ASSERT(offsetof(CaliResult, accuracy) == 32, "CaliResult.accuracy");
QVNLIB_STATIC_ASSERT(sizeof(CaliResult) == 40, "CaliResult size");

QVNLIB_STATIC_ASSERT(offsetof(FusionEvent, timestamp) == 0, "FusionEvent.timestamp");
QVNLIB_STATIC_ASSERT(offsetof(FusionEvent, values) == 8, "FusionEvent.values");
QVNLIB_STATIC_ASSERT(offsetof(FusionEvent, reserved) == 24, "FusionEvent.reserved");
QVNLIB_STATIC_ASSERT(offsetof(FusionEvent, accuracy) == 32, "FusionEvent.accuracy");
QVNLIB_STATIC_ASSERT(sizeof(FusionEvent) == 40, "FusionEvent size");

QVNLIB_STATIC_ASSERT(offsetof(ChipInfo, layout) == 0, "ChipInfo.layout");
QVNLIB_STATIC_ASSERT(offsetof(ChipInfo, deviceid) == 4, "ChipInfo.deviceid");
QVNLIB_STATIC_ASSERT(offsetof(ChipInfo, hwGyro) == 8, "ChipInfo.hwGyro");
QVNLIB_STATIC_ASSERT(sizeof(((ChipInfo *)0)->hwGyro) == 1, "ChipInfo.hwGyro is one byte");

QVNLIB_STATIC_ASSERT(sizeof(QvnLibApiTable) == 16 * sizeof(void *), "table has 16 slots");
QVNLIB_STATIC_ASSERT(offsetof(QvnLibApiTable, name) == 0, "slot 0 is the name");
QVNLIB_STATIC_ASSERT(offsetof(QvnLibApiTable, QVN_CaliInitLib) == 1 * sizeof(void *), "slot 1");
QVNLIB_STATIC_ASSERT(offsetof(QvnLibApiTable, QVN_DoCaliAPI) == 8 * sizeof(void *), "slot 8");
QVNLIB_STATIC_ASSERT(offsetof(QvnLibApiTable, QVN_FusionGetVirtualGyro) == 15 * sizeof(void *),
                     "slot 15");

#endif /* QVNLIB_QVNLIB_H */
