// Device profile: the tunables tuned for this phone, and the hardware variant.
//
// The phone comes in two variants that differ in their magnetic environment
// (one carries an NFC coil). Every initialisation rewrites a fixed set of
// tunables with this phone's values, then reads "ro.boot.hwname" to choose the
// variant's default soft-iron matrix and charging-current coefficients. Host
// changes to these tunables made before QVN_CaliInitLib are overwritten; a
// host that wants its own values sets them after initialisation.
#include <string.h>

#include "api/api.h"
#include "cali/cali.h"
#include "common/log.h"
#include "fusion/fusion.h"
#include "optimal/optimal.h"
#include "platform/platform.h"

namespace {

constexpr const char *kHwNameProperty = "ro.boot.hwname";
constexpr const char *kHwNameFallback = "NULL";
constexpr const char *kNfcPrefix = "vask";
constexpr const char *kNonNfcPrefix = "trel";
constexpr size_t kPrefixLen = 4;

// Soft-iron matrix of the NFC variant, row-major.
constexpr float kNfcSoftIron[9] = {1.0144f,   -0.0366f, 0.0109f,  -0.0249f, 0.9187f,
                                   0.00795f, 0.00625f, -0.0198f, 1.0741f};

// Charging-current coefficients, uT per (current / 1000), x y z.
constexpr float kNfcCharging[3] = {0.0004917f, 0.0014395f, 0.00197f};
constexpr float kNonNfcCharging[3] = {0.0004415f, 0.0009354f, 0.00195f};

void ApplyTunables() {
  // clang-format off
  g_algo_mag_axis_x = 1; g_algo_mag_axis_y = 2; g_algo_mag_axis_z = 3;
  g_mag_id = 8;
  g_sfi_xx_threshold_max = 1.1f;   g_sfi_xx_threshold_min = 0.9f;
  g_sfi_yy_threshold_max = 1.1f;   g_sfi_yy_threshold_min = 0.9f;
  g_sfi_zz_threshold_max = 1.2f;   g_sfi_zz_threshold_min = 0.8f;
  g_sfi_yx_threshold_max = 0.1f;   g_sfi_yx_threshold_min = -0.1f;
  g_sfi_zx_threshold_max = 0.25f;  g_sfi_zx_threshold_min = -0.25f;
  g_sfi_zy_threshold_max = 0.25f;  g_sfi_zy_threshold_min = -0.25f;
  g_cali_data_size_multiple = 2.0f;
  g_cali_radius_threshold_max = 70.0f;
  g_cali_radius_threshold_min = 25.0f;
  g_cali_radius_threshold_wide = 4.0f;
  g_cali_radius_threshold_rate = 0.25f;
  g_cali_radius_threshold_wide_calied = 3.0f;
  g_cali_radius_threshold_rate_calied = 0.15f;
  g_cali_radius_threshold_wide_uncalied = 4.0f;
  g_cali_radius_threshold_rate_uncalied = 0.25f;
  g_cali_radius_threshold_wide_interfd = 4.0f;
  g_cali_radius_threshold_rate_interfd = 0.25f;
  g_qvn_cailDataDist = 6.0f;
  g_qvn_cailDataDist_calied = 15.0f;
  g_qvn_cailDataDist_interfd = 6.0f;
  g_qvn_caliMethod = 2;
  g_enable_mag_sfi_array = 1;
  g_enable_mag_kalman_filter = 2;
  g_en_mtkScpLog = 1;
  interf_cnt_cnt = 0;
  interf_cnt_cnt_sec = 60;
  k7q_interference_threshold = 450.0f;
  k7q_interference_mode = 0;
  g_gyr_filter_expo_threshold = 0.002f;
  g_lpf_acc_ratio = 0.84f;
  g_lpf_mag_ratio = 1.0f;
  g_acc_filter_avg_num = 15.0f;
  g_acc_filter_mid_num = 5.0f;
  g_mag_filter_avg_num = 22.0f;
  g_mag_filter_mid_num = 9.0f;
  g_slect_swgyro_mode = 2;
  g_enable_softGyro_rv = 1;
  g_kmf_q = 0.01f;     g_kmf_r = 0.1f;
  g_accKmf_q = 0.01f;  g_accKmf_r = 0.1f;
  g_zdb_acc_threshold_x = 1.0f;   g_zdb_acc_threshold_y = 0.06f;  g_zdb_acc_threshold_z = 1.0f;
  g_zdb_mag_threshold_x = 0.035f; g_zdb_mag_threshold_y = 0.1f;   g_zdb_mag_threshold_z = 0.1f;
  g_zdb_acc_set = 1.0f;
  g_zdb_mag_set = 1.0f;
  g_zdb_moving_times = 4;
  g_debounce_number_acc = 8;
  g_debounce_number_mag = 8;
  normal_threshold_control = 1;
  normal_threshold = 0.01f;
  non_normal_threshold = 0.005f;
  normal_filter = 1.055f;
  non_normal_filter = 0.35f;
  // clang-format on
}

}  // namespace

extern "C" {

float fMagSP_nonfc[9] = {0.9356f, -0.0447f, 0.0172f, -0.0327f, 1.0337f,
                         0.0091f, 0.0611f,  0.0738f, 1.0374f};

int32_t qvn_hasNFC(void) {
  char value[QVN_PROPERTY_VALUE_MAX] = {0};
  const int n = property_get(kHwNameProperty, value, kHwNameFallback);
  if (n < 1) {
    QVN_LOGE("QVN_property read failed 1, len %d\n: ", n);
  } else {
    // A value of the full buffer length or more is cut at the last byte.
    value[n < QVN_PROPERTY_VALUE_MAX ? n : QVN_PROPERTY_VALUE_MAX - 1] = '\0';
  }

  int32_t result = 0;
  if (strncmp(value, kNfcPrefix, kPrefixLen) == 0) {
    result = 1;
    QVN_LOGE("QVN_K7Q_nfc_flag nfc has_NFC %d\n:", result);
    QVN_LOGE("QVN_k7q_nfc_read  %s\n:", value);
  } else if (strncmp(value, kNonNfcPrefix, kPrefixLen) == 0) {
    QVN_LOGD("QVN_K7Q_nfc_flag nonfc has_NFC %d\n:", result);
    QVN_LOGE("QVN_k7q_nfc_read %s\n:", value);
  }
  QVN_LOGE("qvn_cali has NFC:%d\n", result);
  hashasNFC = result;
  return result;
}

int32_t qvn_SettingLibParm(void) {
  ApplyTunables();

  const float *matrix = fMagSP_nonfc;
  const float *charging = kNonNfcCharging;
  if (qvn_hasNFC() == 1) {
    matrix = kNfcSoftIron;
    charging = kNfcCharging;
  }
  memcpy(g_default_sfi_array, matrix, sizeof g_default_sfi_array);
  comp_charging_x = charging[0];
  comp_charging_y = charging[1];
  comp_charging_z = charging[2];

  const float *s = g_default_sfi_array;
  QVN_LOGE("qvn_cali g_default_sfi_array [0-2] ,%f,%f,%f", s[0], s[1], s[2]);
  QVN_LOGE("qvn_cali g_default_sfi_array [3-5] ,%f,%f,%f", s[3], s[4], s[5]);
  // The profile's result is the log call's, as it always has been; nobody reads it.
  return QVN_LOGE("qvn_cali g_default_sfi_array [6-8] ,%f,%f,%f", s[6], s[7], s[8]);
}

}  // extern "C"
