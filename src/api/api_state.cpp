// Process-wide stores behind the entry table, with their load-time values.
#include "api/api.h"

// clang-format off
// ===================================================================== tunables
float output_mag_lpf_ratio = 0.1f;      // output low-pass coefficient (NFC variant only)
float comp_charging_x = 0.0f;           // uT per (current / 1000), set by the device profile
float comp_charging_y = 0.0f;
float comp_charging_z = 0.0f;

// ====================================================================== inputs
Vec3f g_acc_data = {0.0f, 0.0f, 0.0f};  // m/s^2, latest accelerometer sample
Vec3f g_gyr_data = {0.0f, 0.0f, 0.0f};  // rad/s, latest gyroscope sample
Vec3f g_mag_data = {0.0f, 0.0f, 0.0f};  // uT, latest magnetometer sample (stored only)
int64_t acc_timestamp = 0;              // ns, latest accelerometer sample

// ===================================================================== outputs
Vec3f g_fusion_mag = {0.0f, 0.0f, 0.0f};  // uT, calibrated field handed to fusion
int16_t g_accuracy = 0;                 // accuracy last returned by calibration
int32_t qvn_caliParameter[3] = {0, 0, 0};  // offset in hundredths of a uT, survives re-init

// =============================================================== working state
Vec3f mag_cali_pre = {0.0f, 0.0f, 0.0f};  // uT, output low-pass state, never reset
int32_t hashasNFC = 0;                  // 1 on the NFC variant
int16_t log_cnt = 0;                    // calls since the last periodic summary
// clang-format on
