// The library's face towards the sensor service: the entry table and the thin
// entries behind it. They copy samples into the stores, run the calibration
// step and (from exactly one place, chosen by the host's hwGyro byte) the
// fusion step, and copy results out. Three small pieces of behaviour live
// here: which call runs fusion, the output low-pass of the NFC variant, and
// the hundredths-of-a-microtesla copy of the offset that survives
// re-initialisation.
#include <string.h>

#include "api/api.h"
#include "api/throttle.h"
#include "cali/cali.h"
#include "common/log.h"
#include "fusion/fusion.h"
#include "math/convert.h"

namespace {

constexpr const char *kLibVersion = "quelbo_k7q_compatible_P2_zq2281d_20240708_v0.37";

// Fusion runs from QVN_CaliApiSetGyroData only at exactly 1, from
// QVN_DoCaliAPI only at exactly 0; any other value (2, -1) runs it nowhere.
constexpr int32_t kFusionOnGyro = 1;
constexpr int32_t kFusionOnMag = 0;

// The periodic summary of QVN_DoCaliAPI: written when the previous count
// reached this value, i.e. on the 1002nd call and every 1002 calls after.
constexpr int16_t kSummaryPeriod = 1001;

// Charging coefficients are tuned in uT per current unit, offsets are kept in
// hundredths of a uT across re-initialisation.
constexpr float kHundredthsPerMicrotesla = 100.0f;

int32_t g_hw_gyro = 0;  // the hwGyro byte of the last ChipInfo, sign-extended
qvn::Throttle g_set_acc_line;
qvn::Throttle g_set_mag_line;

}  // namespace

extern "C" {

int32_t QVN_CaliInitLib(const ChipInfo *info) {
  g_hw_gyro = static_cast<int32_t>(info->hwGyro);
  qvn_SettingLibParm();
  qvn_MagCal_initial(g_hw_gyro);
  qvn_FusionInitLib(g_hw_gyro);
  // Resume with the offset and accuracy from before the re-initialisation.
  qvn_set_preststus(qvn_caliParameter, static_cast<uint16_t>(g_accuracy));
  QVN_LOGE("qvn_cali init ,chipinfo: layout=%d, deviceid=%d , hwGyro =%d \n", info->layout,
           info->deviceid, g_hw_gyro);
  return 0;
}

int32_t QVN_FusionEnableLib(int32_t enable) {
  // The tags are fetched as the service has always seen them fetched; the
  // call switches nothing on or off.
  char tag[8] = {0};
  char date[8] = {0};
  qvn_algo_version(tag, date);
  QVN_LOGE("qvn_cali enable ver:%s,en:%d\n", kLibVersion, enable);
  return enable;
}

int32_t QVN_CaliApiGetOffset(float out[3]) {
  out[0] = hdi_array[0];
  out[1] = hdi_array[1];
  out[2] = hdi_array[2];
  return 0;
}

int32_t QVN_CaliApiSetOffset(const float in[3]) {
  // Only the offset in force changes: the persisted copy and the accuracy
  // follow at the next calibration step.
  hdi_array[0] = in[0];
  hdi_array[1] = in[1];
  hdi_array[2] = in[2];
  return 0;
}

int32_t QVN_CaliApiSetGyroData(const SensorEvent *event) {
  g_gyr_data = Vec3f{event->x, event->y, event->z};
  if (g_hw_gyro == kFusionOnGyro) {
    qvn_SetFusionData(&g_acc_data, &g_fusion_mag, &g_gyr_data,
                      static_cast<uint64_t>(event->timestamp));
  }
  return 0;
}

int32_t QVN_CaliApiSetAccelData(const SensorEvent *event) {
  g_acc_data = Vec3f{event->x, event->y, event->z};
  acc_timestamp = event->timestamp;
  if (g_hw_gyro == kFusionOnMag && g_set_acc_line.Admit(event->timestamp)) {
    QVN_LOGE("qvn_cali Cali SetAcc: %f %f %f\n", event->x, event->y, event->z);
  }
  return 0;
}

int32_t QVN_CaliApiSetMagData(const SensorEvent *event) {
  g_mag_data = Vec3f{event->x, event->y, event->z};
  if (g_set_mag_line.Admit(event->timestamp)) {
    QVN_LOGE("qvn_cali Cali SetMag  accur:%d,data:%f,%f,%f\n", event->accuracy, event->x, event->y,
             event->z);
  }
  return 0;
}

int32_t QVN_DoCaliAPI(const SensorEvent *mag, CaliResult *out) {
  float m[3] = {mag->x, mag->y, mag->z};
  float u[3] = {0.0f, 0.0f, 0.0f};
  float b[3] = {0.0f, 0.0f, 0.0f};

  qvn_linearCharging_Comp(m, get_battery_current());

  const int16_t n = log_cnt;
  log_cnt = static_cast<int16_t>(n + 1);
  if (n >= kSummaryPeriod) {
    log_cnt = 0;
    const float *s = g_default_sfi_array;
    QVN_LOGE("qvn_cali g_default_sfi_array [0-2] ,%f,%f,%f", s[0], s[1], s[2]);
    QVN_LOGE("qvn_cali g_default_sfi_array [3-5] ,%f,%f,%f", s[3], s[4], s[5]);
    QVN_LOGE("qvn_cali g_default_sfi_array [6-8] ,%f,%f,%f", s[6], s[7], s[8]);
    QVN_LOGE("qvn_cali enable ver:%s,hasNFC%d:\n", kLibVersion, hashasNFC);
    QVN_LOGE("qvn_cali comp_charging_x: comp_charging_y: comp_charging_z: %f,%f,%f\n",
             comp_charging_x, comp_charging_y, comp_charging_z);
  }

  const uint64_t t = static_cast<uint64_t>(mag->timestamp);
  qvn_DoMagCali(&g_acc_data.x, m, &g_gyr_data.x, t);
  // int16 and uint16 may alias; the driver reports the level unsigned.
  qvn_get_magneticfield(u, b, reinterpret_cast<uint16_t *>(&g_accuracy));

  // Fusion sees the unfiltered field; only the host's copy is smoothed below.
  g_fusion_mag = Vec3f{u[0], u[1], u[2]};
  if (g_hw_gyro == kFusionOnMag) qvn_SetFusionData(&g_acc_data, &g_fusion_mag, &g_gyr_data, t);

  if (hashasNFC != 0) {
    // Exactly p + r * (u - p) in float32; the state starts at zero and is
    // never reset, so the first outputs after load rise from zero.
    const float r = output_mag_lpf_ratio;
    u[0] = mag_cali_pre.x + r * (u[0] - mag_cali_pre.x);
    u[1] = mag_cali_pre.y + r * (u[1] - mag_cali_pre.y);
    u[2] = mag_cali_pre.z + r * (u[2] - mag_cali_pre.z);
    mag_cali_pre = Vec3f{u[0], u[1], u[2]};
  }

  out->timestamp = mag->timestamp;
  out->x = u[0];
  out->y = u[1];
  out->z = u[2];
  out->bias_x = b[0];
  out->bias_y = b[1];
  out->bias_z = b[2];
  out->accuracy = static_cast<int8_t>(static_cast<uint8_t>(g_accuracy & 0xFF));

  for (int i = 0; i < 3; ++i) qvn_caliParameter[i] = qvn::TruncToI32(b[i] * kHundredthsPerMicrotesla);
  return 0;
}

// Slot 0 names the library; slots 1-15 are the entries in the host's order.
const QvnLibApiTable MAG_LIB_API_INTERFACE = {
    "libqvnlib",
    QVN_CaliInitLib,
    QVN_FusionEnableLib,
    QVN_CaliApiGetOffset,
    QVN_CaliApiSetOffset,
    QVN_CaliApiSetGyroData,
    QVN_CaliApiSetAccelData,
    QVN_CaliApiSetMagData,
    QVN_DoCaliAPI,
    QVN_FusionGetGravity,
    QVN_FusionGetRotationVector,
    QVN_FusionGetOrientation,
    QVN_FusionGetLinearaccel,
    QVN_FusionGetGameRotationVector,
    QVN_FusionGetGeoMagnetic,
    QVN_FusionGetVirtualGyro,
};

}  // extern "C"
