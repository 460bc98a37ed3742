// Magnetometer calibration: every exported name that the calibration
// subsystem owns, grouped by concern. Functions live in the file named in each
// banner; every variable is defined, with its default and unit, in
// cali_state.cpp. Other subsystems include this header; nobody re-declares
// these names.
#ifndef QVNLIB_CALI_CALI_H
#define QVNLIB_CALI_CALI_H

#include "common/export.h"

// Capacity of the planar sample batch (samples per axis plane).
#define QVN_BATCH_CAPACITY 300

QVN_EXPORT_BEGIN

// ---- calibration result, limits, working copies (cali_init.cpp) ----
extern float hdi_array[3];
extern float sfi_array[9];
extern float static_sfi[9];
extern float g_default_sfi_array[9];
extern float g_default_sfi_xx, g_default_sfi_xy, g_default_sfi_xz;
extern float g_default_sfi_yx, g_default_sfi_yy, g_default_sfi_yz;
extern float g_default_sfi_zx, g_default_sfi_zy, g_default_sfi_zz;
extern uint16_t g_enable_mag_sfi_array;
extern int16_t qvn_accuracy;
extern int16_t cali_update;
extern int16_t sfi_update;
extern int16_t g_mag_id;
extern float mag_field_range_array[10];
extern float mag_field_range;
extern float mag_radius_max;
extern float mag_radius_min;
extern float mag_radius_wide;
extern float mag_radius_out_rate;
extern float cali_radius;
extern float qvn_radius;
extern int16_t qvn_cali_log[15];
extern int16_t qvn_debug_log[30];
extern uint16_t g_en_mtkScpLog;
extern int16_t qvn_gyroflag;
// interference working copies and their tunables
extern float m_interf_mag_threshold;
extern float m_interf_enviro_range1;
extern float m_interf_enviro_range2;
extern float g_mag_interference_threshold;
extern float g_mag_interference_range_1;
extern float g_mag_interference_range_2;
// axis codes
extern int16_t acc_axis[3];
extern int16_t mag_axis[3];
extern int16_t gyr_axis[3];
extern int16_t g_algo_acc_axis_x, g_algo_acc_axis_y, g_algo_acc_axis_z;
extern int16_t g_algo_mag_axis_x, g_algo_mag_axis_y, g_algo_mag_axis_z;
extern int16_t g_algo_gyro_axis_x, g_algo_gyro_axis_y, g_algo_gyro_axis_z;
// soft-iron validation bounds: working copies and tunables
extern float sfi_xx_threshold_max, sfi_xx_threshold_min;
extern float sfi_yy_threshold_max, sfi_yy_threshold_min;
extern float sfi_zz_threshold_max, sfi_zz_threshold_min;
extern float sfi_yx_threshold_max, sfi_yx_threshold_min;
extern float sfi_zx_threshold_max, sfi_zx_threshold_min;
extern float sfi_zy_threshold_max, sfi_zy_threshold_min;
extern float g_sfi_xx_threshold_max, g_sfi_xx_threshold_min;
extern float g_sfi_yy_threshold_max, g_sfi_yy_threshold_min;
extern float g_sfi_zz_threshold_max, g_sfi_zz_threshold_min;
extern float g_sfi_yx_threshold_max, g_sfi_yx_threshold_min;
extern float g_sfi_zx_threshold_max, g_sfi_zx_threshold_min;
extern float g_sfi_zy_threshold_max, g_sfi_zy_threshold_min;
// method selection
extern int16_t mag_cali_mode;
extern uint16_t g_qvn_caliMethod;
// gyroscope-aided method acceptance: working copies and tunables
extern float fss_gyr_effective_ratio;
extern float fss_mag_effective_stdev_min;
extern float fss_mag_effective_stdev_max;
extern float g_gyr_effective_ratio;
extern float g_gyr_effective_min;
extern float g_gyr_effective_stdev_max;
// moving-average weights: working copies and tunables
extern float MAG_MVAVG_WEIGHT_MOVING, MAG_MVAVG_WEIGHT_STATIC;
extern float ORI_MVAVG_WEIGHT_MOVING, ORI_MVAVG_WEIGHT_STATIC;
extern float g_m_movWei, g_m_static, g_o_movWei, g_o_static;

// ---- cali_init.cpp ----
void qvn_MagCal_initial(int32_t hw_gyro);
void qvn_chip_initial(int16_t id);
void set_mag_cali_radius_range(float max, float min, float wide, float rate);
void clear_data_buffer(void);
void load_mag_calibration(float sfi[9], float hdi[3]);
void qvn_set_preststus(const int32_t param[3], uint16_t accuracy);
void qvn_algo_version(char tag[8], char date[8]);
void qvn_get_algo_version(char tag[8], char date[8]);
void qvn_get_lib_version(char tag[8], char date[8]);

// ---- calibration driver state and tunables (driver.cpp) ----
extern float qvn_mag[3];
extern float qvn_nonfilter_mag[3];
extern float sg_mag[3];
extern uint64_t timestamp_cali;
extern float rad_ratio;
extern int16_t rad_ratioint;
extern uint16_t g_radc;
extern int16_t cali_mode_mode;
extern int16_t interf_cnt_cnt;
extern uint16_t interf_cnt_cnt_sec;
extern float k7q_interference_threshold;
extern uint16_t k7q_interference_mode;
extern float g_qvn_cailDataDist;
extern float g_qvn_cailDataDist_calied;
extern float g_qvn_cailDataDist_interfd;
extern float g_cali_radius_threshold_max, g_cali_radius_threshold_min;
extern float g_cali_radius_threshold_wide, g_cali_radius_threshold_rate;
extern float g_cali_radius_threshold_wide_uncalied, g_cali_radius_threshold_rate_uncalied;
extern float g_cali_radius_threshold_wide_calied, g_cali_radius_threshold_rate_calied;
extern float g_cali_radius_threshold_wide_interfd, g_cali_radius_threshold_rate_interfd;
extern uint16_t g_dri_filter_set;
extern int64_t bef_flag;
extern float qvn_mag_bef[3];
extern float qvn_mag_base[3];
extern int16_t log_cnt_lib;
extern int16_t log_cnt_lib2;

// ---- driver.cpp ----
uint16_t qvn_DoMagCali(float acc[3], float mag[3], float gyro[3], uint64_t timestamp_ns);
void sensor_placement_adjustment(float v[3], const int16_t axis[3]);
void qvn_get_magneticfield(float field[3], float bias[3], uint16_t *accuracy);
void qvn_get_nonfilter_mag(float field[3], float bias[3], uint16_t *accuracy);

// ---- sample_rate.cpp ----
extern int16_t qvn_algo_odr;
extern int16_t cali_first;
extern int16_t g_odr_steady;
extern int16_t g_odr_count;
extern float g_cali_data_size_multiple;
void qvn_odr_calculate(uint64_t t);
void qvn_caliodr_change(int16_t r);
void qvn_odr_change(int16_t r);

// ---- sample_collection.cpp ----
extern float dsc_data_mag[3][QVN_BATCH_CAPACITY];
extern float ctn_data_gyr[3][QVN_BATCH_CAPACITY];
extern float ctn_data_gdt[QVN_BATCH_CAPACITY];
extern float mag_data_tmp[3][QVN_BATCH_CAPACITY];
extern int16_t dsc_data_num;
extern int16_t dsc_data_size;
extern int16_t dsc_data_discard_size;
extern Vec3f dsc_pre_mag;
extern float dsc_mag_distance;
extern int16_t dsc_reset_count;
extern int16_t dsc_reset_threshold;
extern float gyr_filter_min;
extern float gyr_filter_max;
int16_t mag_is_effective(const float sample[3]);
int16_t gyro_is_effective(void);
void dsc_data_discard(void);
void ctn_data_discard(int16_t start);

// ---- sphere_fit.cpp ----
extern float DM[81];
extern float invDM[81];
int16_t calculate_sphere_offset(const float *x, const float *y, const float *z, int16_t n,
                                float offset[3], float *radius);
int16_t mag_cali_mag_ball(const float mag[3], float hdi[3]);

// ---- ellipsoid_fit.cpp ----
int16_t calculate_magnetic_sfi_hdi(const float *x, const float *y, const float *z, uint16_t n,
                                   float hdi[3], float sfi[9], float *scale);
int16_t mag_cali_mag_oval(const float mag[3], float sfi[9], float hdi[3], uint16_t use_given_offset);

// ---- gyro_offset_fit.cpp ----
int16_t calculate_hdi_by_gyroscope(const float *mx, const float *my, const float *mz,
                                   const float *gx, const float *gy, const float *gz,
                                   const float *dt, int16_t n, float hdi[3]);
int16_t fss_hdi_is_valid(const float *x, const float *y, const float *z, uint16_t n,
                         const float hdi[3], float *radius);
int16_t mag_cali_mag_gyr(const float mag[3], const float gyro[3], float hdi[3], float interval);

// ---- validation.cpp ----
extern int16_t mag_quad_accuracy;
extern int16_t mag_cali_check_err;
extern int16_t mag_cali_check_ctn;
int16_t mag_calibration(const float mag[3], const float gyro[3], uint16_t mode, float sfi[9],
                        float hdi[3], int16_t gyro_present, float interval);
int16_t dsc_sfi_hdi_is_valid(const float *x, const float *y, const float *z, uint16_t n,
                             const float hdi[3], const float sfi[9], float radius);

// ---- accuracy.cpp / interference.cpp ----
extern int16_t m_interf_enviro_threshold_1;
extern int16_t m_interf_enviro_threshold_2;
extern uint16_t mag_interf_countdown_threshold;
extern int16_t m_interf_enviro_counter1;
extern int16_t m_interf_enviro_counter2;
extern uint16_t mag_interf_countdown;
extern float mag_interf_pre[3];
int16_t qvn_accuracy_level(const float mag[3], int16_t level);
void qvn_mag_interference(const float mag[3]);
int16_t qvn_mag_interference_detection(void);
float *qvn_sfi_reduce(float v[3], const float sfi[9]);

// ---- dynamic_offset.cpp ----
extern float mag_guardband;
extern float pre_mag[3];
extern float mag_point[3];
extern uint8_t count_D_offset;
extern uint8_t reset_D_offset;
extern float avg_mag_point[3];
extern float D_offset[3];
int16_t mag_D_offset(float m[3], const float gyro[3]);

// ---- gyro_bias.cpp ----
extern float gyr_cali_data[900];
extern int16_t gyr_cali_index;
extern float gyr_cali_bias[3];
extern float gyr_fusion_data[900];
extern int16_t gyr_fusion_index;
extern float gyr_fusion_bias[3];
void qvn_cali_gyro(float gyro[3]);
void qvn_fusion_gyro(float gyro[3]);

QVN_EXPORT_END

#endif  // QVNLIB_CALI_CALI_H
