// Calibration start-up: puts the calibration subsystem into its starting
// state, and the small routines that set or restore parts of the result.
//
// qvn_MagCal_initial runs after the device profile, so every tunable copied
// here is the profile's value where the profile sets one. It deliberately
// leaves the learned state alone (accuracy, radius, rate, the collected batch,
// the interference and adoption modes): a re-initialisation resumes where the
// library stood, with the offset handed back through qvn_set_preststus.
#include <string.h>

#include "cali/cali.h"
#include "cali/static_sfi_log.h"
#include "common/log.h"
#include "fusion/fusion.h"
#include "optimal/optimal.h"

namespace {

constexpr int16_t kLastChipIndex = 9;
constexpr float kWidestFieldRange = 3000.0f;  // uT, chips beyond the table

// Acceptance bounds of a radius configuration (uT, fraction of samples).
constexpr float kMaxOutRate = 0.5f;
constexpr float kMinWide = 1.0f;
constexpr float kEarthField = 45.0f;  // max must exceed it, min must not

constexpr int16_t kKalmanStartDelay = 10;  // samples passed through unfiltered
constexpr float kMvavgSwitchAngle = 3.0f;  // deg

constexpr float kOffsetUnitsPerUt = 100.0f;  // the kept offset is in 0.01 uT

constexpr float kIdentity[9] = {1.0f, 0.0f, 0.0f, 0.0f, 1.0f, 0.0f, 0.0f, 0.0f, 1.0f};

// Tags are exactly eight characters and are copied without a terminating NUL;
// hosts read fixed-size fields.
constexpr size_t kTagLen = 8;

}  // namespace

void qvn_chip_initial(int16_t id) {
  if (id > kLastChipIndex) {
    mag_field_range = kWidestFieldRange;
    return;
  }
  // A negative index would read before the table; it selects the first chip.
  mag_field_range = mag_field_range_array[id < 0 ? 0 : id];
}

void set_mag_cali_radius_range(float max, float min, float wide, float rate) {
  // All four or none: a configuration that fails any test leaves the limits
  // in force, silently. Written as "not accepted" so a NaN is rejected too.
  const bool ok = rate <= kMaxOutRate && rate >= 0.0f && wide >= kMinWide && min >= 0.0f &&
                  max > kEarthField && min <= kEarthField;
  if (!ok) return;
  mag_radius_max = max;
  mag_radius_min = min;
  mag_radius_wide = wide;
  mag_radius_out_rate = rate;
}

void clear_data_buffer(void) {
  // Emptying the batch is a matter of counts; the sample memory is reused.
  dsc_data_num = 0;
  dsc_reset_count = 0;
}

void load_mag_calibration(float sfi[9], float hdi[3]) {
  memcpy(sfi, kIdentity, sizeof kIdentity);
  hdi[0] = 0.0f;
  hdi[1] = 0.0f;
  hdi[2] = 0.0f;
}

void qvn_set_preststus(const int32_t param[3], uint16_t accuracy) {
  for (int i = 0; i < 3; ++i) hdi_array[i] = static_cast<float>(param[i]) / kOffsetUnitsPerUt;
  qvn_accuracy = static_cast<int16_t>(accuracy);
}

void qvn_algo_version(char tag[8], char date[8]) {
  memcpy(tag, "ECBSRC68", kTagLen);
  memcpy(date, "20230719", kTagLen);
}

void qvn_get_algo_version(char tag[8], char date[8]) { qvn_algo_version(tag, date); }

void qvn_get_lib_version(char tag[8], char date[8]) {
  memcpy(tag, "QVN_KQ7_", kTagLen);
  memcpy(date, "20240709", kTagLen);
}

void qvn_MagCal_initial(int32_t hw_gyro) {
  qvn_chip_initial(g_mag_id);
  m_kmf_start_delay = kKalmanStartDelay;
  o_mvavg_weight_switch_angle = kMvavgSwitchAngle;
  qvn_gyroflag = (hw_gyro != 0) ? 1 : 0;

  m_interf_mag_threshold = g_mag_interference_threshold;
  m_interf_enviro_range1 = g_mag_interference_range_1;
  m_interf_enviro_range2 = g_mag_interference_range_2;

  acc_axis[0] = g_algo_acc_axis_x;
  acc_axis[1] = g_algo_acc_axis_y;
  acc_axis[2] = g_algo_acc_axis_z;
  mag_axis[0] = g_algo_mag_axis_x;
  mag_axis[1] = g_algo_mag_axis_y;
  mag_axis[2] = g_algo_mag_axis_z;
  gyr_axis[0] = g_algo_gyro_axis_x;
  gyr_axis[1] = g_algo_gyro_axis_y;
  gyr_axis[2] = g_algo_gyro_axis_z;

  sfi_xx_threshold_max = g_sfi_xx_threshold_max;
  sfi_xx_threshold_min = g_sfi_xx_threshold_min;
  sfi_yy_threshold_max = g_sfi_yy_threshold_max;
  sfi_yy_threshold_min = g_sfi_yy_threshold_min;
  sfi_zz_threshold_max = g_sfi_zz_threshold_max;
  sfi_zz_threshold_min = g_sfi_zz_threshold_min;
  sfi_yx_threshold_max = g_sfi_yx_threshold_max;
  sfi_yx_threshold_min = g_sfi_yx_threshold_min;
  sfi_zx_threshold_max = g_sfi_zx_threshold_max;
  sfi_zx_threshold_min = g_sfi_zx_threshold_min;
  sfi_zy_threshold_max = g_sfi_zy_threshold_max;

  // 0 oval, 1 gyroscope-aided, anything else the ball method. The driver
  // rewrites the mode per sample, so this choice governs the first one only.
  mag_cali_mode = (g_qvn_caliMethod == 0) ? 0 : (g_qvn_caliMethod == 1) ? 1 : 2;

  // The learned matrix starts over; the offset comes back afterwards through
  // qvn_set_preststus.
  memcpy(sfi_array, kIdentity, sizeof kIdentity);
  hdi_array[0] = 0.0f;
  hdi_array[1] = 0.0f;
  hdi_array[2] = 0.0f;
  sfi_zy_threshold_min = g_sfi_zy_threshold_min;

  set_mag_cali_radius_range(g_cali_radius_threshold_max, g_cali_radius_threshold_min,
                            g_cali_radius_threshold_wide, g_cali_radius_threshold_rate);

  // The two stdev bounds come from the tunables named g_gyr_effective_*: the
  // crossing of names is part of the interface and is kept.
  fss_gyr_effective_ratio = g_gyr_effective_ratio;
  fss_mag_effective_stdev_min = g_gyr_effective_min;
  fss_mag_effective_stdev_max = g_gyr_effective_stdev_max;

  config_optimal_mode(g_optimal_compensation_mode);

  if (g_enable_mag_sfi_array == 1) {
    memcpy(static_sfi, g_default_sfi_array, sizeof static_sfi);
    if (g_en_mtkScpLog != 0) QVN_LOGD("QVNlib: sfi array");
  } else {
    const float elements[9] = {g_default_sfi_xx, g_default_sfi_xy, g_default_sfi_xz,
                               g_default_sfi_yx, g_default_sfi_yy, g_default_sfi_yz,
                               g_default_sfi_zx, g_default_sfi_zy, g_default_sfi_zz};
    memcpy(static_sfi, elements, sizeof static_sfi);
    if (g_en_mtkScpLog != 0) QVN_LOGD("QVNlib:DEFAULT_SFI");
  }
  if (g_en_mtkScpLog != 0) qvn::LogStaticSfi();

  MAG_MVAVG_WEIGHT_MOVING = g_m_movWei;
  MAG_MVAVG_WEIGHT_STATIC = g_m_static;
  ORI_MVAVG_WEIGHT_MOVING = g_o_movWei;
  ORI_MVAVG_WEIGHT_STATIC = g_o_static;

  for (int i = 0; i < 3; ++i) {
    gyr_cali_bias[i] = 0.0f;
    gyr_fusion_bias[i] = 0.0f;
    pre_mag[i] = 0.0f;
  }
  bef_flag = 0;
  // Forces the next sample to apply the measured rate again (and restart the
  // two-second interference hold).
  cali_first = 0;
}
