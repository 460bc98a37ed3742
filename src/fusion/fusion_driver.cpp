// Fusion driver: initialisation and the per-sample fusion step.
//
// One step, in an order that must not change because several stages rewrite
// the caller's vectors in place:
//   repeated-timestamp guard -> dt from the unsigned timestamp difference ->
//   debug lines -> gyroscope bias -> snapshot of the field -> start-up weight
//   ramp (gyroscope devices) -> soft gyroscope -> magnetic filter -> angles ->
//   azimuth fold -> trap compensation -> moving average.
// Start-up ramp, with r = counter / ramp length:
//   qacc_weight = acc_normal + acc_delta * r^2,  qmag_weight likewise,
// so the correction gains start near 0.3 and fall to their normal values.
#include <math.h>

#include "cali/cali.h"
#include "common/log.h"
#include "fusion/fusion.h"
#include "math/convert.h"
#include "optimal/optimal.h"

namespace {

constexpr double kNsPerSecond = 1e9;
// Soft-gyroscope variants selected by g_slect_swgyro_mode.
constexpr uint8_t kSoftGyroPlain = 1;
constexpr uint8_t kSoftGyroDebounced = 2;
// Filter kinds of set_softgyro_filter.
constexpr int16_t kFilterAcc = 1;
constexpr int16_t kFilterMag = 2;
constexpr int16_t kFilterGyroExpo = 3;

constexpr float kSwitchAngleAtInit = 3.0f;  // deg, moving-average fast/slow switch
constexpr double kGyroDeadBand = 0.01;      // rad/s, compared in double
constexpr float kRearmSlow = 0.2f;          // rad/s about z: one third of a ramp
constexpr float kRearmFast = 0.6f;          // rad/s about z: two thirds of a ramp
constexpr float kFoldPitchLow = 90.0f;      // deg, exclusive
constexpr float kFoldPitchHigh = 140.0f;    // deg, exclusive
constexpr float kHalfTurnDeg = 180.0f;
constexpr float kFullTurnDeg = 360.0f;

float *Components(Vec3f *v) { return &v->x; }

}  // namespace

void qvn_FusionInitLib(int32_t hwGyro) {
  ori_algo_mode = (hwGyro != 0) ? 1 : 0;
  o_mvavg_weight_switch_angle = kSwitchAngleAtInit;
  Qfusion[0] = 1.0f;
  Qfusion[1] = 0.0f;
  Qfusion[2] = 0.0f;
  Qfusion[3] = 0.0f;
  config_optimal_mode(g_optimal_compensation_mode);
  qvn_softgyro_initialize();
  const float acc_windows[2] = {g_acc_filter_avg_num, g_acc_filter_mid_num};
  const float mag_windows[2] = {g_mag_filter_avg_num, g_mag_filter_mid_num};
  const float gyro_expo[1] = {g_gyr_filter_expo_threshold};
  set_softgyro_filter(kFilterAcc, acc_windows);
  set_softgyro_filter(kFilterMag, mag_windows);
  set_softgyro_filter(kFilterGyroExpo, gyro_expo);
  zdb_acc_threshold = g_zdb_acc_switch_threshold;
  zdb_mag_ratio = g_zdb_mag_set;
  zdb_acc_ratio = g_zdb_acc_set;
  // The outputs and timestamp_fuison survive a re-initialisation on purpose:
  // the getters keep answering with the last values.
}

void update_fusion_weight(float *gyro) {
  // A ramp length of 0 gives 0/0 and NaN weights; nothing has ever guarded it.
  const float r = static_cast<float>(fusion_start_delay_counter) /
                  static_cast<float>(fusion_start_delay_time);
  qacc_weight = g_quat_weight_acc_normal + g_quat_weight_acc_delta * (r * r);
  qmag_weight = g_quat_weight_mag_normal + g_quat_weight_mag_delta * (r * r);

  if (fusion_start_delay_counter != 0) {
    fusion_start_delay_counter = static_cast<int16_t>(fusion_start_delay_counter - 1);
  } else {
    fusion_startup = 0;
  }

  // The caller's rates are zeroed in place, so the attitude filter never
  // integrates the residual noise of a device at rest.
  for (int i = 0; i < 3; ++i) {
    if (fabs(static_cast<double>(gyro[i])) < kGyroDeadBand) gyro[i] = 0.0f;
  }

  // Turning about z raises the gains again for a part of a ramp: the counter
  // is set, not decremented, so a steady turn holds them up. Only z counts.
  const float w = fabsf(gyro[2]);
  if (w > kRearmSlow) {
    fusion_start_delay_counter = static_cast<int16_t>(fusion_start_delay_time / 3);
  }
  if (w > kRearmFast) {
    fusion_start_delay_counter = static_cast<int16_t>((2 * fusion_start_delay_time) / 3);
  }
}

void qvn_SetFusionData(Vec3f *acc, Vec3f *mag, Vec3f *gyro, uint64_t timestamp_ns) {
  if (timestamp_ns == timestamp_fuison) return;

  // The difference is unsigned: a clock that goes backwards gives a huge dt
  // (about 1.8e10 s) rather than a negative one. The first step measures from
  // 0, i.e. the whole time since boot.
  const uint64_t delta_ns = timestamp_ns - timestamp_fuison;
  const float dt = static_cast<float>(static_cast<double>(static_cast<float>(delta_ns)) /
                                      kNsPerSecond);
  timestamp_fuison = timestamp_ns;

  if (g_en_mtkScpLog != 0 && qvn::DebugLogOn()) {
    QVN_LOGD("[QVN_LOG] g_timeStamp_lld, %lld\n", static_cast<long long>(timestamp_ns));
    QVN_LOGD("[QVN_LOG] timestamp_fuison, %lld\n", static_cast<long long>(timestamp_fuison));
    // Whole seconds: prints 0 at any normal rate. Kept as it always was.
    QVN_LOGD("[QVN_LOG] delta_time, %lld\n",
             static_cast<long long>(qvn::TruncToI64(static_cast<double>(dt))));
  }

  qvn_fusion_gyro(Components(gyro));

  // The moving average smooths the field as it came in, before the soft
  // gyroscope and the magnetic filter rewrite mag in place.
  Vec3f mag_snapshot = *mag;

  if (ori_algo_mode == 1) update_fusion_weight(Components(gyro));

  float gyr[3] = {0.0f, 0.0f, 0.0f};
  float rov[4] = {0.0f, 0.0f, 0.0f, 0.0f};
  float gra[3] = {0.0f, 0.0f, 0.0f};
  float lin[3] = {0.0f, 0.0f, 0.0f};
  int16_t soft_ok = 0;
  if (g_slect_swgyro_mode == kSoftGyroDebounced) {
    soft_ok = softgyro_orvel(acc, mag, gyr, rov, gra, lin, dt);
  } else if (g_slect_swgyro_mode == kSoftGyroPlain) {
    soft_ok = softgyro_calculation(acc, mag, gyr, rov, gra, lin, dt);
  }
  if (soft_ok != 0) {
    for (int i = 0; i < 3; ++i) {
      qvn_gyr[i] = gyr[i];
      qvn_gra[i] = gra[i];
      qvn_lin[i] = lin[i];
    }
    for (int i = 0; i < 4; ++i) qvn_rov[i] = rov[i];
  } else {
    // Only the rate is cleared; gravity, linear acceleration and the rotation
    // vector keep the values of the last step that produced them.
    qvn_gyr[0] = 0.0f;
    qvn_gyr[1] = 0.0f;
    qvn_gyr[2] = 0.0f;
  }

  optimal_mag_filter(Components(mag));

  float angles[3];
  ori_calculation(Qfusion, Components(acc), Components(mag), Components(gyro),
                  static_cast<int16_t>(ori_algo_mode), angles, dt);
  qvn_ori[0] = angles[0];
  qvn_ori[1] = angles[1];
  qvn_ori[2] = angles[2];

  // Face down and tipped past the vertical, the compass reads half a turn
  // off; the compass path folds it back, but only inside this pitch band.
  float azimuth = angles[0];
  const float pitch_mag = fabsf(angles[1]);
  if (ori_algo_mode == 0 && pitch_mag > kFoldPitchLow && pitch_mag < kFoldPitchHigh) {
    azimuth = azimuth - kHalfTurnDeg;
  }
  if (azimuth < 0.0f) azimuth = azimuth + kFullTurnDeg;
  qvn_ori[0] = azimuth;
  ja_ori[0] = azimuth;
  ja_ori[1] = angles[1];
  ja_ori[2] = angles[2];

  if (g_enable_mag_data_compensation == 1) {
    // Reloaded every step so that a new mode takes effect at the next sample.
    config_optimal_mode(g_optimal_compensation_mode);
    optimal_data_compensation(Components(mag), qvn_ori, 0);
  }
  if (g_enable_mag_moving_average == 1) {
    optimal_moving_average(Components(&mag_snapshot), qvn_ori);
  }
}
