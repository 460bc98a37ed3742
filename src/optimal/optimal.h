// Magnetic output conditioning: every exported name that the conditioning
// subsystem owns, grouped by concern. Functions live in the file named in each
// banner; variables are defined in optimal_state.cpp.
#ifndef QVNLIB_OPTIMAL_OPTIMAL_H
#define QVNLIB_OPTIMAL_OPTIMAL_H

#include "common/export.h"

#define QVN_TRAP_TABLE_LEN 23

QVN_EXPORT_BEGIN

// ---- compensation_tables.cpp ----
extern uint16_t g_enable_mag_kalman_filter;
extern uint16_t g_enable_mag_moving_average;
extern uint16_t g_enable_mag_data_compensation;
extern uint16_t g_optimal_compensation_mode;
extern float trap_compensation_table[QVN_TRAP_TABLE_LEN];
extern float trap_compensation_table_7_12[QVN_TRAP_TABLE_LEN];
extern float trap_compensation_table_8_13[QVN_TRAP_TABLE_LEN];
extern float trap_compensation_table_8_16[QVN_TRAP_TABLE_LEN];
extern float trap_compensation_table_10_16[QVN_TRAP_TABLE_LEN];
extern float trap_compensation_table_12_17[QVN_TRAP_TABLE_LEN];
void config_optimal_mode(uint16_t mode);

// ---- mag_kalman.cpp ----
extern float m_kmf_a;
extern float m_kmf_p;
extern float g_m_kmf_q;
extern float g_m_kmf_r;
extern float m_kmf_pt;
extern float m_kmf_g;
extern float m_kmf_output[3];
extern int16_t m_kmf_start_delay;
float *optimal_mag_filter(float v[3]);

// ---- moving_average.cpp ----
extern float m_mvavg_weight_slow, m_mvavg_weight_fast;
extern float o_mvavg_weight_slow, o_mvavg_weight_fast;
extern float o_mvavg_weight_switch_angle;
extern float magnet_pre[3];
extern float orient_pre[3];
float *optimal_moving_average(float mag[3], float ori[3]);

// ---- tilt_compensation.cpp ----
void optimal_data_compensation(float mag[3], float ori[3], int16_t rotate_mag);
void mag_xy_rotation(float m[3], float pitch, float roll, float yaw);
void mag_xyz_rotation(float m[3], const float delta[3], float pitch, float roll);
void optimal_mag_align(float v[2], float angle);

QVN_EXPORT_END

#endif  // QVNLIB_OPTIMAL_OPTIMAL_H
