// Temporary weak stand-ins for routines that have not landed yet. Each is
// replaced by the strong definition in its own file; this file shrinks to
// nothing as the subsystems land and is then removed.
#include "api/api.h"
#include "cali/cali.h"
#include "fusion/fusion.h"
#include "math/math.h"
#include "optimal/optimal.h"

extern "C" __attribute__((weak)) float qvn_sqrt(float x) { return 0; }
extern "C" __attribute__((weak)) float qvn_sin(float x) { return 0; }
extern "C" __attribute__((weak)) float qvn_cos(float x) { return 0; }
extern "C" __attribute__((weak)) float qvn_asin(float x) { return 0; }
extern "C" __attribute__((weak)) float qvn_acos(float x) { return 0; }
extern "C" __attribute__((weak)) float qvn_tan(float x) { return 0; }
extern "C" __attribute__((weak)) float qvn_atan(float x) { return 0; }
extern "C" __attribute__((weak)) float qvn_atan2(float y, float x) { return 0; }
extern "C" __attribute__((weak)) float qvn_cbrt(float base) { return 0; }
extern "C" __attribute__((weak)) float normalize_angle(float a) { return 0; }
extern "C" __attribute__((weak)) int16_t sensor_data_normalize(float out[3], const float in[3]) { return 0; }
extern "C" __attribute__((weak)) float sensor_data_stdev(const float *data, int16_t n) { return 0; }
extern "C" __attribute__((weak)) int16_t inverse_matrix(const float in[81], float out[81], uint8_t n) { return 0; }
extern "C" __attribute__((weak)) void qvn_MagCal_initial(int32_t hw_gyro) { }
extern "C" __attribute__((weak)) void qvn_chip_initial(int16_t id) { }
extern "C" __attribute__((weak)) void set_mag_cali_radius_range(float max, float min, float wide, float rate) { }
extern "C" __attribute__((weak)) void clear_data_buffer(void) { }
extern "C" __attribute__((weak)) void load_mag_calibration(float sfi[9], float hdi[3]) { }
extern "C" __attribute__((weak)) void qvn_set_preststus(const int32_t param[3], uint16_t accuracy) { }
extern "C" __attribute__((weak)) void qvn_algo_version(char tag[8], char date[8]) { }
extern "C" __attribute__((weak)) void qvn_get_algo_version(char tag[8], char date[8]) { }
extern "C" __attribute__((weak)) void qvn_get_lib_version(char tag[8], char date[8]) { }
extern "C" __attribute__((weak)) uint16_t qvn_DoMagCali(float acc[3], float mag[3], float gyro[3], uint64_t timestamp_ns) { return 0; }
extern "C" __attribute__((weak)) void sensor_placement_adjustment(float v[3], const int16_t axis[3]) { }
extern "C" __attribute__((weak)) void qvn_get_magneticfield(float field[3], float bias[3], uint16_t *accuracy) { }
extern "C" __attribute__((weak)) void qvn_get_nonfilter_mag(float field[3], float bias[3], uint16_t *accuracy) { }
extern "C" __attribute__((weak)) void qvn_odr_calculate(uint64_t t) { }
extern "C" __attribute__((weak)) void qvn_caliodr_change(int16_t r) { }
extern "C" __attribute__((weak)) void qvn_odr_change(int16_t r) { }
extern "C" __attribute__((weak)) int16_t mag_is_effective(const float sample[3]) { return 0; }
extern "C" __attribute__((weak)) int16_t gyro_is_effective(void) { return 0; }
extern "C" __attribute__((weak)) void dsc_data_discard(void) { }
extern "C" __attribute__((weak)) void ctn_data_discard(int16_t start) { }
extern "C" __attribute__((weak)) int16_t calculate_sphere_offset(const float *x, const float *y, const float *z, int16_t n, float offset[3], float *radius) { return 0; }
extern "C" __attribute__((weak)) int16_t mag_cali_mag_ball(const float mag[3], float hdi[3]) { return 0; }
extern "C" __attribute__((weak)) int16_t calculate_magnetic_sfi_hdi(const float *x, const float *y, const float *z, uint16_t n, float hdi[3], float sfi[9], float *scale) { return 0; }
extern "C" __attribute__((weak)) int16_t mag_cali_mag_oval(const float mag[3], float sfi[9], float hdi[3], uint16_t use_given_offset) { return 0; }
extern "C" __attribute__((weak)) int16_t calculate_hdi_by_gyroscope(const float *mx, const float *my, const float *mz, const float *gx, const float *gy, const float *gz, const float *dt, int16_t n, float hdi[3]) { return 0; }
extern "C" __attribute__((weak)) int16_t fss_hdi_is_valid(const float *x, const float *y, const float *z, uint16_t n, const float hdi[3], float *radius) { return 0; }
extern "C" __attribute__((weak)) int16_t mag_cali_mag_gyr(const float mag[3], const float gyro[3], float hdi[3], float interval) { return 0; }
extern "C" __attribute__((weak)) int16_t mag_calibration(const float mag[3], const float gyro[3], uint16_t mode, float sfi[9], float hdi[3], int16_t gyro_present, float interval) { return 0; }
extern "C" __attribute__((weak)) int16_t dsc_sfi_hdi_is_valid(const float *x, const float *y, const float *z, uint16_t n, const float hdi[3], const float sfi[9], float radius) { return 0; }
extern "C" __attribute__((weak)) int16_t qvn_accuracy_level(const float mag[3], int16_t level) { return 0; }
extern "C" __attribute__((weak)) void qvn_mag_interference(const float mag[3]) { }
extern "C" __attribute__((weak)) int16_t qvn_mag_interference_detection(void) { return 0; }
extern "C" __attribute__((weak)) float * qvn_sfi_reduce(float v[3], const float sfi[9]) { return nullptr; }
extern "C" __attribute__((weak)) int16_t mag_D_offset(float m[3], const float gyro[3]) { return 0; }
extern "C" __attribute__((weak)) void qvn_cali_gyro(float gyro[3]) { }
extern "C" __attribute__((weak)) void qvn_fusion_gyro(float gyro[3]) { }
extern "C" __attribute__((weak)) void qvn_FusionInitLib(int32_t hwGyro) { }
extern "C" __attribute__((weak)) void qvn_SetFusionData(Vec3f *acc, Vec3f *mag, Vec3f *gyro, uint64_t timestamp_ns) { }
extern "C" __attribute__((weak)) void update_fusion_weight(float *gyro) { }
extern "C" __attribute__((weak)) void qvn_getOrientation(float *values, uint8_t *accuracy, uint64_t *timestamp) { }
extern "C" __attribute__((weak)) void qvn_getGravity(float *values, uint8_t *accuracy, uint64_t *timestamp) { }
extern "C" __attribute__((weak)) void qvn_getLinearaccel(float *values, uint8_t *accuracy, uint64_t *timestamp) { }
extern "C" __attribute__((weak)) void qvn_getVirtualGyro(float *values, uint8_t *accuracy, uint64_t *timestamp) { }
extern "C" __attribute__((weak)) void qvn_getRotationVector(float *values, uint8_t *accuracy, uint64_t *timestamp) { }
extern "C" __attribute__((weak)) void qvn_getGameRotationVector(float *values, uint8_t *accuracy, uint64_t *timestamp) { }
extern "C" __attribute__((weak)) void qvn_getGeoMagnetic(float *values, uint8_t *accuracy, uint64_t *timestamp) { }
extern "C" __attribute__((weak)) void qvn_get_rotation_vector_euler(float *q) { }
extern "C" __attribute__((weak)) void qvn_softgyro_initialize(void) { }
extern "C" __attribute__((weak)) int16_t set_softgyro_filter(int16_t kind, const float *params) { return 0; }
extern "C" __attribute__((weak)) int16_t acc_data_filter_func(const float in[3], float out[3], uint16_t flag) { return 0; }
extern "C" __attribute__((weak)) int16_t mag_data_filter_func(const float in[3], float out[3], uint16_t flag) { return 0; }
extern "C" __attribute__((weak)) int16_t softgyro_calculation(Vec3f *acc, Vec3f *mag, float gyr[3], float rov[4], float gra[3], float lin[3], float dt) { return 0; }
extern "C" __attribute__((weak)) int16_t softgyro_orvel(Vec3f *acc, Vec3f *mag, float gyr[3], float rov[4], float gra[3], float lin[3], float dt) { return 0; }
extern "C" __attribute__((weak)) void run_sensor_fusion(const float acc[3], const float mag[3], const float dtheta[3], float q[4]) { }
extern "C" __attribute__((weak)) void AccCorrection(const float q[4], const float v[3], float out[4]) { }
extern "C" __attribute__((weak)) void MagCorrection(const float q[4], const float v[3], float out[4]) { }
extern "C" __attribute__((weak)) float * q_multf(float *a, const float *b, float *out) { return nullptr; }
extern "C" __attribute__((weak)) float * q_addf(float *a, const float *b, float *out) { return nullptr; }
extern "C" __attribute__((weak)) void q_normalizef(float *q) { }
extern "C" __attribute__((weak)) float * q_invertf(float *a, float *out) { return nullptr; }
extern "C" __attribute__((weak)) int16_t ori_calculation(float q[4], const float acc[3], const float mag[3], const float gyro[3], int16_t mode, float out[3], float dt) { return 0; }
extern "C" __attribute__((weak)) int16_t calculate_ypr_angle(const float acc[3], const float mag[3], float out[3]) { return 0; }
extern "C" __attribute__((weak)) void quaternion2euler(const float q[4], float out[3]) { }
extern "C" __attribute__((weak)) void config_optimal_mode(uint16_t mode) { }
extern "C" __attribute__((weak)) float * optimal_mag_filter(float v[3]) { return nullptr; }
extern "C" __attribute__((weak)) float * optimal_moving_average(float mag[3], float ori[3]) { return nullptr; }
extern "C" __attribute__((weak)) void optimal_data_compensation(float mag[3], float ori[3], int16_t rotate_mag) { }
extern "C" __attribute__((weak)) void mag_xy_rotation(float m[3], float pitch, float roll, float yaw) { }
extern "C" __attribute__((weak)) void mag_xyz_rotation(float m[3], const float delta[3], float pitch, float roll) { }
extern "C" __attribute__((weak)) void optimal_mag_align(float v[2], float angle) { }
extern "C" __attribute__((weak)) int32_t qvn_hasNFC(void) { return 0; }
extern "C" __attribute__((weak)) int32_t qvn_SettingLibParm(void) { return 0; }
extern "C" __attribute__((weak)) int32_t get_battery_current(void) { return 0; }
extern "C" __attribute__((weak)) int32_t get_charge_mode(void) { return 0; }
extern "C" __attribute__((weak)) int32_t check_usb_online(void) { return 0; }
extern "C" __attribute__((weak)) float * qvn_linearCharging_Comp(float mag[3], int32_t current) { return nullptr; }
