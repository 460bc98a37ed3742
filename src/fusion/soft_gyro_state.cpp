// Process-wide state of the soft gyroscope and its input filters, with the
// values it holds when the library is loaded. qvn_FusionInitLib resets the
// rings and overwrites the window lengths, thresholds and ratios from the
// fusion tunables.
#include "fusion/fusion.h"

// clang-format off
// ===================================================================== tunables
float g_kmf_q = 0.02f, g_accKmf_q = 0.02f;  // process noise (magnetic, accelerometer)
float g_kmf_r = 0.1f, g_accKmf_r = 0.1f;    // measurement noise
float g_zdb_mag_threshold = 0.7f;           // uT, magnetic still/moving threshold
float g_lpf_acc_ratio = 0.5f;               // smoothing while moving
float g_lpf_mag_ratio = 0.5f;
uint16_t g_debounce_number_acc = 0;         // bit 0: difference of raw input, bit 3: of filtered
uint16_t g_debounce_number_mag = 0;
float g_zdb_acc_threshold_x = 0.7f, g_zdb_acc_threshold_y = 0.7f, g_zdb_acc_threshold_z = 0.7f;  // m/s^2
float g_zdb_mag_threshold_x = 0.7f, g_zdb_mag_threshold_y = 0.7f, g_zdb_mag_threshold_z = 0.7f;  // uT
int16_t g_zdb_moving_times = 0;             // further over-threshold steps to declare motion
uint16_t normal_threshold_control = 0;      // nonzero: shape the angle increments
float normal_threshold = 0.01f;             // rad/step, increments at or above are scaled
float non_normal_threshold = 0.005f;        // rad/step, increments at or below are scaled
float normal_filter = 0.05f;                // scale of large increments
float non_normal_filter = 1.03f;            // scale of small increments
uint16_t g_en_gyr0_zero = 0;                // force virtual gyro x to 0
uint16_t g_en_gyr2_zero = 0;                // force virtual gyro z to 0

// ===================================================== filter windows and rings
int16_t acc_sort_num = 10, mag_sort_num = 10;   // median window, samples (<= 32)
int16_t acc_avg_num = 10, mag_avg_num = 10;     // mean window, samples (<= 40 / 32)
float acc_sort[3][QVN_SORT_CAPACITY] = {};      // median rings, row per axis
float mag_sort[3][QVN_SORT_CAPACITY] = {};
float acc_old[3][QVN_ACC_MEAN_CAPACITY] = {};   // rings of medians
float mag_old[3][QVN_MAG_MEAN_CAPACITY] = {};
int16_t acc_sort_cnt = 0, mag_sort_cnt = 0;     // next slot of the median ring
int16_t acc_avg_cnt = 0, mag_avg_cnt = 0;       // next slot of the mean ring

// =============================================================== working state
float kmf_acc[3] = {0.0f}, kmf_mag[3] = {0.0f}; // scalar Kalman estimates
float kmf_a = 1.0f, acckmf_a = 1.0f;            // state transition
float kmf_p = 1.0f, acckmf_p = 1.0f;            // error covariance
float kmf_pt = 0.0f, acckmf_pt = 0.0f;          // predicted covariance of the last step
float kmf_g = 0.0f, acckmf_g = 0.0f;            // gain of the last step
float zdb_acc_pre[3] = {0.0f}, zdb_mag_pre[3] = {0.0f};        // smoothed, then filtered vectors
float zdb_acc_prepre[3] = {0.0f}, zdb_mag_prepre[3] = {0.0f};  // debounced variant's references
int16_t zdb_counter = 0;                        // steps left in the moving state
float zdb_acc_threshold = 0.01f;                // m/s^2 per axis
float zdb_acc_ratio = 0.01f, zdb_mag_ratio = 0.01f;  // smoothing while still
float BRM[9] = {0.0f};                          // attitude change, row-major
float BRM_dev[9] = {0.0f};                      // attitude of the current sample
float BRM_ref_inv[9] = {0.0f};                  // transpose of the previous attitude
float debounce_degree = 0.225f;                 // deg/s, rate dead band
int16_t qvn_gyro_1st_data = 0;                  // Kalman seeding samples taken
float qvn_gyro_drps = 0.0f;                     // rad/s, z-rate carry
float zdb_mag_hold[3] = {0.0f};                 // uT, magnetic reference of the still state
int16_t zdb_moving_number_acc = 0;              // consecutive over-threshold steps
int16_t zdb_moving_number_mag = 0;
float zdb_counter_2 = 0.0f;                     // fade-out countdown after motion
float dYPR_counts[3] = {0.0f};                  // hold-off counters of the angle shaping
// clang-format on
