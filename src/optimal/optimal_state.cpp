// Process-wide state of the magnetic output conditioning, with the values it
// holds when the library is loaded.
#include "optimal/optimal.h"

// clang-format off
// ===================================================================== switches
uint16_t g_enable_mag_kalman_filter = 2;      // bit 0: filter the calibrated field; bit 1: seed the soft-gyro Kalman
uint16_t g_enable_mag_moving_average = 1;     // exactly 1: orientation moving average each step
uint16_t g_enable_mag_data_compensation = 1;  // exactly 1: trap compensation each step
uint16_t g_optimal_compensation_mode = 4;     // trap profile 0..5

// ======================================== trap compensation: working table, profiles
// Entry i: fraction of the remaining angle by which an azimuth i..i+1 degrees
// from the nearest multiple of 45 degrees is moved toward it.
float trap_compensation_table[QVN_TRAP_TABLE_LEN] = {
    0.0f,   0.286f, 0.286f, 0.286f, 0.286f, 0.286f, 0.286f, 0.286f, 0.235f, 0.195f, 0.163f, 0.137f,
    0.115f, 0.096f, 0.08f,  0.067f, 0.055f, 0.044f, 0.035f, 0.026f, 0.019f, 0.012f, 0.006f};
float trap_compensation_table_7_12[QVN_TRAP_TABLE_LEN] = {
    0.0f,   0.286f, 0.286f, 0.286f, 0.286f, 0.286f, 0.286f, 0.286f, 0.25f,  0.222f, 0.2f,   0.182f,
    0.167f, 0.14f,  0.119f, 0.097f, 0.08f,  0.064f, 0.051f, 0.038f, 0.0273f, 0.017f, 0.008f};
float trap_compensation_table_8_13[QVN_TRAP_TABLE_LEN] = {
    0.0f,   0.375f, 0.375f, 0.375f, 0.375f, 0.375f, 0.375f, 0.375f, 0.375f, 0.333f, 0.3f,   0.273f,
    0.25f,  0.231f, 0.193f, 0.16f,  0.131f, 0.106f, 0.083f, 0.063f, 0.045f, 0.029f, 0.014f};
float trap_compensation_table_8_16[QVN_TRAP_TABLE_LEN] = {
    0.0f,   0.38f,  0.38f,  0.38f,  0.38f,  0.38f,  0.38f,  0.38f,  0.38f,  0.38f,  0.38f,  0.38f,
    0.38f,  0.38f,  0.38f,  0.38f,  0.38f,  0.3f,   0.24f,  0.18f,  0.13f,  0.08f,  0.04f};
float trap_compensation_table_10_16[QVN_TRAP_TABLE_LEN] = {
    0.0f,   0.5f,   0.5f,   0.5f,   0.5f,   0.5f,   0.5f,   0.5f,   0.5f,   0.5f,   0.5f,   0.47f,
    0.444f, 0.423f, 0.405f, 0.389f, 0.375f, 0.303f, 0.238f, 0.18f,  0.129f, 0.082f, 0.039f};
float trap_compensation_table_12_17[QVN_TRAP_TABLE_LEN] = {
    0.0f,   0.625f, 0.625f, 0.625f, 0.625f, 0.625f, 0.625f, 0.625f, 0.625f, 0.625f, 0.625f, 0.602f,
    0.583f, 0.567f, 0.554f, 0.542f, 0.531f, 0.45f,  0.377f, 0.312f, 0.254f, 0.201f, 0.153f};

// ============================================================ magnetic Kalman filter
float m_kmf_a = 1.0f;                   // state transition A
float m_kmf_p = 1.0f;                   // error covariance P
float g_m_kmf_q = 1.0f;                 // process noise Q
float g_m_kmf_r = 0.0f;                 // measurement noise R (0: pass-through)
float m_kmf_pt = 0.0f;                  // predicted covariance of the last step
float m_kmf_g = 0.0f;                   // gain of the last step
float m_kmf_output[3] = {0.0f};         // uT, last output
int16_t m_kmf_start_delay = 0;          // calls left to pass through

// ==================================================================== moving average
float m_mvavg_weight_slow = 1.0f;       // field weight for small azimuth changes
float m_mvavg_weight_fast = 1.0f;       // field weight for large azimuth changes
float o_mvavg_weight_slow = 1.0f;       // azimuth weight for small changes
float o_mvavg_weight_fast = 1.0f;       // azimuth weight for large changes
float o_mvavg_weight_switch_angle = 1.0f;  // deg, change from which the fast weights apply
float magnet_pre[3] = {0.0f};           // uT, last reported field
float orient_pre[3] = {0.0f};           // deg, [0] last reported azimuth
// clang-format on
