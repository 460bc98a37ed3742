// Sensor fusion: every exported name that the fusion subsystem owns, grouped
// by concern. Functions live in the file named in each banner; variables are
// defined in fusion_state.cpp and soft_gyro_state.cpp.
#ifndef QVNLIB_FUSION_FUSION_H
#define QVNLIB_FUSION_FUSION_H

#include "common/export.h"

// Ring capacities of the soft-gyroscope input filters (entries per row).
#define QVN_SORT_CAPACITY 32
#define QVN_ACC_MEAN_CAPACITY 40
#define QVN_MAG_MEAN_CAPACITY 32

QVN_EXPORT_BEGIN

// ---- fusion_state.cpp: fusion driver state and tunables ----
extern float Qfusion[4];
extern float qvn_rov[4];
extern float qvn_ori[3];
extern float ja_ori[3];
extern float qvn_gra[3];
extern float qvn_lin[3];
extern float qvn_gyr[3];
extern uint64_t timestamp_fuison;
extern uint16_t ori_algo_mode;
extern uint8_t g_slect_swgyro_mode;
extern float qacc_weight;
extern float qmag_weight;
extern int16_t fusion_start_delay_time;
extern int16_t fusion_start_delay_counter;
extern int16_t fusion_startup;
extern float g_quat_weight_acc_normal, g_quat_weight_mag_normal;
extern float g_quat_weight_acc_delta, g_quat_weight_mag_delta;
extern float g_quat_weight_acc_startup, g_quat_weight_mag_startup;
extern float g_acc_filter_avg_num, g_acc_filter_mid_num;
extern float g_mag_filter_avg_num, g_mag_filter_mid_num;
extern float g_gyr_filter_expo_threshold;
extern float g_zdb_acc_switch_threshold;
extern float g_zdb_acc_set, g_zdb_mag_set;
extern uint16_t g_enable_softGyro_rv;

// ---- fusion_driver.cpp ----
void qvn_FusionInitLib(int32_t hwGyro);
void qvn_SetFusionData(Vec3f *acc, Vec3f *mag, Vec3f *gyro, uint64_t timestamp_ns);
void update_fusion_weight(float *gyro);

// ---- fusion_outputs.cpp ----
void qvn_getOrientation(float *values, uint8_t *accuracy, uint64_t *timestamp);
void qvn_getGravity(float *values, uint8_t *accuracy, uint64_t *timestamp);
void qvn_getLinearaccel(float *values, uint8_t *accuracy, uint64_t *timestamp);
void qvn_getVirtualGyro(float *values, uint8_t *accuracy, uint64_t *timestamp);
void qvn_getRotationVector(float *values, uint8_t *accuracy, uint64_t *timestamp);
void qvn_getGameRotationVector(float *values, uint8_t *accuracy, uint64_t *timestamp);
void qvn_getGeoMagnetic(float *values, uint8_t *accuracy, uint64_t *timestamp);
void qvn_get_rotation_vector_euler(float *q);

// ---- soft_gyro_state.cpp: soft-gyroscope filters and shared state ----
extern int16_t acc_sort_num, mag_sort_num;
extern int16_t acc_avg_num, mag_avg_num;
extern float acc_sort[3][QVN_SORT_CAPACITY];
extern float mag_sort[3][QVN_SORT_CAPACITY];
extern float acc_old[3][QVN_ACC_MEAN_CAPACITY];
extern float mag_old[3][QVN_MAG_MEAN_CAPACITY];
extern int16_t acc_sort_cnt, mag_sort_cnt;
extern int16_t acc_avg_cnt, mag_avg_cnt;
extern float kmf_acc[3], kmf_mag[3];
extern float kmf_a, acckmf_a;
extern float kmf_p, acckmf_p;
extern float kmf_pt, acckmf_pt;
extern float kmf_g, acckmf_g;
extern float g_kmf_q, g_accKmf_q;
extern float g_kmf_r, g_accKmf_r;
extern float zdb_acc_pre[3], zdb_mag_pre[3];
extern float zdb_acc_prepre[3], zdb_mag_prepre[3];
extern int16_t zdb_counter;
extern float zdb_acc_threshold;
extern float zdb_acc_ratio, zdb_mag_ratio;
extern float g_zdb_mag_threshold;
extern float g_lpf_acc_ratio, g_lpf_mag_ratio;
extern float BRM[9], BRM_dev[9], BRM_ref_inv[9];
extern float debounce_degree;
extern int16_t qvn_gyro_1st_data;
extern float qvn_gyro_drps;
extern float zdb_mag_hold[3];
// debounced variant
extern uint16_t g_debounce_number_acc, g_debounce_number_mag;
extern float g_zdb_acc_threshold_x, g_zdb_acc_threshold_y, g_zdb_acc_threshold_z;
extern float g_zdb_mag_threshold_x, g_zdb_mag_threshold_y, g_zdb_mag_threshold_z;
extern int16_t g_zdb_moving_times;
extern int16_t zdb_moving_number_acc, zdb_moving_number_mag;
extern float zdb_counter_2;
extern uint16_t normal_threshold_control;
extern float normal_threshold, non_normal_threshold;
extern float normal_filter, non_normal_filter;
extern float dYPR_counts[3];
extern uint16_t g_en_gyr0_zero, g_en_gyr2_zero;

// ---- soft_gyro_filters.cpp ----
void qvn_softgyro_initialize(void);
int16_t set_softgyro_filter(int16_t kind, const float *params);
int16_t acc_data_filter_func(const float in[3], float out[3], uint16_t flag);
int16_t mag_data_filter_func(const float in[3], float out[3], uint16_t flag);

// ---- soft_gyro.cpp / soft_gyro_debounced.cpp ----
int16_t softgyro_calculation(Vec3f *acc, Vec3f *mag, float gyr[3], float rov[4], float gra[3],
                             float lin[3], float dt);
int16_t softgyro_orvel(Vec3f *acc, Vec3f *mag, float gyr[3], float rov[4], float gra[3],
                       float lin[3], float dt);

// ---- quaternion_filter.cpp ----
void run_sensor_fusion(const float acc[3], const float mag[3], const float dtheta[3], float q[4]);
void AccCorrection(const float q[4], const float v[3], float out[4]);
void MagCorrection(const float q[4], const float v[3], float out[4]);
float *q_multf(float *a, const float *b, float *out);
float *q_addf(float *a, const float *b, float *out);
void q_normalizef(float *q);
float *q_invertf(float *a, float *out);

// ---- orientation.cpp ----
int16_t ori_calculation(float q[4], const float acc[3], const float mag[3], const float gyro[3],
                        int16_t mode, float out[3], float dt);
int16_t calculate_ypr_angle(const float acc[3], const float mag[3], float out[3]);
void quaternion2euler(const float q[4], float out[3]);

QVN_EXPORT_END

#endif  // QVNLIB_FUSION_FUSION_H
