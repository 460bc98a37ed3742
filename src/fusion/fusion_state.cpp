// Process-wide state of the fusion driver, with the values it holds when the
// library is loaded. The device profile may overwrite the tunables before
// qvn_FusionInitLib copies some of them into working variables.
#include "fusion/fusion.h"

// clang-format off
// ===================================================================== tunables
uint8_t g_slect_swgyro_mode = 1;           // soft gyro: 1 plain, 2 debounced, other none
float g_quat_weight_acc_normal = 0.02f;    // steady-state gravity correction gain per step
float g_quat_weight_mag_normal = 0.003f;   // steady-state heading correction gain per step
float g_quat_weight_acc_delta = 0.28f;     // extra gravity gain at the start of the ramp
float g_quat_weight_mag_delta = 0.297f;    // extra heading gain at the start of the ramp
float g_quat_weight_acc_startup = 0.3f;    // normal + delta; kept for hosts, read by nothing
float g_quat_weight_mag_startup = 0.3f;
float g_acc_filter_avg_num = 15.0f;        // samples, accelerometer mean window
float g_acc_filter_mid_num = 7.0f;         // samples, accelerometer median window
float g_mag_filter_avg_num = 15.0f;        // samples, magnetometer mean window
float g_mag_filter_mid_num = 7.0f;         // samples, magnetometer median window
float g_gyr_filter_expo_threshold = 0.002f;  // deg/s, soft-gyro rate dead band
float g_zdb_acc_switch_threshold = 0.007f; // m/s^2, still/moving threshold
float g_zdb_acc_set = 1.0f;                // still-state smoothing factors
float g_zdb_mag_set = 1.0f;
uint16_t g_enable_softGyro_rv = 1;         // rotation vectors: 1 soft gyro, 2 from angles, other Qfusion

// ===================================================================== outputs
float Qfusion[4] = {1.0f, 0.0f, 0.0f, 0.0f};  // attitude, w x y z, w >= 0
float qvn_rov[4] = {0.0f, 0.0f, 0.0f, 1.0f};  // rotation vector x y z w (soft gyro)
float qvn_ori[3] = {0.0f};                 // deg: azimuth [0,360), pitch, roll
float ja_ori[3] = {0.0f};                  // deg: angles before compensation / average
float qvn_gra[3] = {0.0f};                 // m/s^2, gravity
float qvn_lin[3] = {0.0f};                 // m/s^2, linear acceleration
float qvn_gyr[3] = {0.0f};                 // rad/s, virtual gyroscope
uint64_t timestamp_fuison = 0;             // ns, last step that ran

// =============================================================== working state
uint16_t ori_algo_mode = 0;                // 1 with a hardware gyroscope
float qacc_weight = 0.02f;                 // gravity correction gain in force
float qmag_weight = 0.003f;                // heading correction gain in force
int16_t fusion_start_delay_time = 0;       // samples, length of the start-up ramp
int16_t fusion_start_delay_counter = 0;    // samples left in the ramp
int16_t fusion_startup = 0;                // 1 while a ramp runs; read by nothing
// clang-format on
