// The seven QVN_FusionGet* entries: each calls its inner getter on zeroed
// locals, packs a FusionEvent and writes its throttled log line.
//
// Two asymmetries are deliberate and kept: the geomagnetic entry copies only
// three of its getter's four values (values[3] is always 0), and the virtual
// gyroscope carries the latest accelerometer time, not the fusion time. Each
// line is throttled on the timestamp that its record carries.
#include <string.h>

#include "api/api.h"
#include "api/throttle.h"
#include "common/log.h"
#include "fusion/fusion.h"

namespace {

using InnerGetter = void (*)(float *, uint8_t *, uint64_t *);

enum class Timestamp { kGetter, kAccelerometer };

struct Packed {
  float values[4];
  uint8_t accuracy;
  int64_t timestamp;
};

// Runs the getter and fills out; `copied` is how many values reach the host.
Packed Fill(InnerGetter get, int copied, Timestamp source, FusionEvent *out) {
  float values[4] = {0.0f, 0.0f, 0.0f, 0.0f};
  uint8_t accuracy = 0;
  uint64_t timestamp = 0;
  get(values, &accuracy, &timestamp);

  Packed p = {{0.0f, 0.0f, 0.0f, 0.0f}, accuracy, static_cast<int64_t>(timestamp)};
  for (int i = 0; i < copied; ++i) p.values[i] = values[i];
  if (source == Timestamp::kAccelerometer) p.timestamp = acc_timestamp;

  for (int i = 0; i < 4; ++i) out->values[i] = p.values[i];
  memset(out->reserved, 0, sizeof out->reserved);
  out->accuracy = static_cast<int8_t>(p.accuracy);
  out->timestamp = p.timestamp;
  return p;
}

void Log3(qvn::Throttle &line, const char *fmt, const Packed &p) {
  if (line.Admit(p.timestamp)) {
    qvn::LogLine(ANDROID_LOG_ERROR, fmt, p.accuracy, p.values[0], p.values[1], p.values[2]);
  }
}

void Log4(qvn::Throttle &line, const char *fmt, const Packed &p) {
  if (line.Admit(p.timestamp)) {
    qvn::LogLine(ANDROID_LOG_ERROR, fmt, p.accuracy, p.values[0], p.values[1], p.values[2],
                 p.values[3]);
  }
}

qvn::Throttle g_gravity_line;
qvn::Throttle g_rov_line;
qvn::Throttle g_ori_line;
qvn::Throttle g_linear_line;
qvn::Throttle g_game_rov_line;
qvn::Throttle g_geomagnetic_line;
qvn::Throttle g_virtual_gyro_line;

}  // namespace

// Every format below takes one %d and three (Log3) or four (Log4) %f.
extern "C" {

int32_t QVN_FusionGetGravity(FusionEvent *out) {
  Log3(g_gravity_line, "qvn_cali Fusion GetGravity accuracy:%d [x,y,z]: %f,%f,%f \n",
       Fill(qvn_getGravity, 3, Timestamp::kGetter, out));
  return 0;
}

int32_t QVN_FusionGetRotationVector(FusionEvent *out) {
  Log4(g_rov_line, "qvn_cali Fusion GetROV accuracy:%d [0-3]: %f,%f,%f,%f \n",
       Fill(qvn_getRotationVector, 4, Timestamp::kGetter, out));
  return 0;
}

int32_t QVN_FusionGetOrientation(FusionEvent *out) {
  Log3(g_ori_line, "qvn_cali Fusion GetOri accuracy:%d [x,y,z]: %f,%f,%f\n",
       Fill(qvn_getOrientation, 3, Timestamp::kGetter, out));
  return 0;
}

int32_t QVN_FusionGetLinearaccel(FusionEvent *out) {
  Log3(g_linear_line, "qvn_cali Fusion GetLinear accuracy:%d [x,y,z]: %f,%f,%f \n",
       Fill(qvn_getLinearaccel, 3, Timestamp::kGetter, out));
  return 0;
}

int32_t QVN_FusionGetGameRotationVector(FusionEvent *out) {
  Log4(g_game_rov_line, "qvn_cali Fusion GetGameROV accuracy:%d [0-3]: %f,%f,%f,%f \n",
       Fill(qvn_getGameRotationVector, 4, Timestamp::kGetter, out));
  return 0;
}

int32_t QVN_FusionGetGeoMagnetic(FusionEvent *out) {
  Log3(g_geomagnetic_line, "qvn_cali Fusion GetGeoMagnetic accuracy:%d [x,y,z]: %f,%f,%f \n",
       Fill(qvn_getGeoMagnetic, 3, Timestamp::kGetter, out));
  return 0;
}

int32_t QVN_FusionGetVirtualGyro(FusionEvent *out) {
  Log3(g_virtual_gyro_line, "qvn_cali Fusion GetVirtualGyro accuracy:%d [x,y,z]: %f,%f,%f\n",
       Fill(qvn_getVirtualGyro, 3, Timestamp::kAccelerometer, out));
  return 0;
}

}  // extern "C"
