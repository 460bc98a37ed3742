// Process-wide state of the magnetometer calibration, with the values it holds
// when the library is loaded. Tunables (prefix g_) are copied into working
// variables by qvn_MagCal_initial; the device profile overwrites several
// tunables before that copy, so the values below are what a host sees only
// until the first QVN_CaliInitLib.
#include "cali/cali.h"

// clang-format off
// ===================================================================== tunables
uint16_t g_enable_mag_sfi_array = 1;     // 1: static_sfi from g_default_sfi_array, else from the nine elements
float g_default_sfi_array[9] = {1.0f, 0.0f, 0.0f,   // device soft-iron matrix, row-major
                                0.0f, 1.0f, 0.0f,
                                0.0f, 0.0f, 1.0f};
float g_default_sfi_xx = 1.0f, g_default_sfi_xy = 0.0f, g_default_sfi_xz = 0.0f;  // per-element default
float g_default_sfi_yx = 0.0f, g_default_sfi_yy = 1.0f, g_default_sfi_yz = 0.0f;
float g_default_sfi_zx = 0.0f, g_default_sfi_zy = 0.0f, g_default_sfi_zz = 1.0f;
int16_t g_mag_id = 8;                    // chip index into mag_field_range_array
float mag_field_range_array[10] = {1200.0f, 1600.0f, 1600.0f, 2200.0f, 2200.0f,  // full scale per chip, uT
                                   2200.0f, 2200.0f, 1600.0f, 2200.0f, 3000.0f};
uint16_t g_en_mtkScpLog = 1;             // calibration debug lines; also gates sfi_array adoption
float g_mag_interference_threshold = 800.0f;  // uT, copied to m_interf_mag_threshold
float g_mag_interference_range_1 = 20.0f;     // uT, copied to m_interf_enviro_range1
float g_mag_interference_range_2 = 30.0f;     // uT, copied to m_interf_enviro_range2
int16_t g_algo_acc_axis_x = 1, g_algo_acc_axis_y = 2, g_algo_acc_axis_z = 3;   // +-1..3 axis codes
int16_t g_algo_mag_axis_x = 1, g_algo_mag_axis_y = 2, g_algo_mag_axis_z = 3;
int16_t g_algo_gyro_axis_x = 1, g_algo_gyro_axis_y = 2, g_algo_gyro_axis_z = 3;
float g_sfi_xx_threshold_max = 1.08f,  g_sfi_xx_threshold_min = 0.92f;   // soft-iron element bounds
float g_sfi_yy_threshold_max = 1.08f,  g_sfi_yy_threshold_min = 0.92f;
float g_sfi_zz_threshold_max = 1.1f,   g_sfi_zz_threshold_min = 0.9f;
float g_sfi_yx_threshold_max = 0.075f, g_sfi_yx_threshold_min = -0.075f;
float g_sfi_zx_threshold_max = 0.15f,  g_sfi_zx_threshold_min = -0.15f;
float g_sfi_zy_threshold_max = 0.15f,  g_sfi_zy_threshold_min = -0.15f;
uint16_t g_qvn_caliMethod = 0;           // 0 oval, 1 gyroscope-aided, other ball
float g_gyr_effective_ratio = 0.6f;      // fraction of the batch that must be turning
float g_gyr_effective_min = 10.0f;       // uT, lower bound of the batch stdev (filled into fss_mag_*)
float g_gyr_effective_stdev_max = 30.0f; // uT, upper bound of the batch stdev
float g_m_movWei = 0.15f, g_m_static = 1.0f;  // moving-average time bases, s
float g_o_movWei = 0.15f, g_o_static = 1.0f;
uint16_t g_radc = 0;                     // 1: rescale radius at rates <= 10 Hz
uint16_t interf_cnt_cnt_sec = 60;        // s, length of an interference period
float k7q_interference_threshold = 800.0f;   // uT per axis, (re)starts an interference period
uint16_t k7q_interference_mode = 2;      // calibration mode during an interference period
float g_qvn_cailDataDist = 6.0f;         // uT*sqrt(Hz), sample spacing base, uncalibrated
float g_qvn_cailDataDist_calied = 6.0f;  // ... at accuracy 3
float g_qvn_cailDataDist_interfd = 6.0f; // ... during an interference period
float g_cali_radius_threshold_max = 70.0f, g_cali_radius_threshold_min = 15.0f;   // uT
float g_cali_radius_threshold_wide = 4.0f, g_cali_radius_threshold_rate = 0.2f;   // in force
float g_cali_radius_threshold_wide_uncalied = 4.0f, g_cali_radius_threshold_rate_uncalied = 0.2f;
float g_cali_radius_threshold_wide_calied = 4.0f,   g_cali_radius_threshold_rate_calied = 0.2f;
float g_cali_radius_threshold_wide_interfd = 4.0f,  g_cali_radius_threshold_rate_interfd = 0.25f;
uint16_t g_dri_filter_set = 0;           // 1: drift filter on the calibrated output
float g_cali_data_size_multiple = 2.0f;  // s of samples in one calibration batch
float gyr_filter_min = 0.1f;             // rad/s, a gyro axis counts as turning above this ...
float gyr_filter_max = 20.0f;            // rad/s, ... and below this
int16_t dsc_reset_threshold = 0;         // consecutive rejections that empty the batch; 0: dsc_data_size
float mag_guardband = 5.0f;              // uT, tolerated |field| - qvn_radius for dynamic offset

// ============================================== working copies (set at init)
float m_interf_mag_threshold = 1000.0f;  // uT, |field| above which accuracy drops to 0
float m_interf_enviro_range1 = 15.0f;    // uT, half-width of the level-3 band around 45 uT
float m_interf_enviro_range2 = 30.0f;    // uT, half-width of the level-2 band around 45 uT
int16_t acc_axis[3] = {1, 2, 3};
int16_t mag_axis[3] = {1, 2, 3};
int16_t gyr_axis[3] = {1, 2, 3};
float sfi_xx_threshold_max = 1.1f,   sfi_xx_threshold_min = 0.9f;
float sfi_yy_threshold_max = 1.1f,   sfi_yy_threshold_min = 0.9f;
float sfi_zz_threshold_max = 1.2f,   sfi_zz_threshold_min = 0.8f;
float sfi_yx_threshold_max = 0.085f, sfi_yx_threshold_min = -0.085f;
float sfi_zx_threshold_max = 0.35f,  sfi_zx_threshold_min = -0.35f;
float sfi_zy_threshold_max = 0.35f,  sfi_zy_threshold_min = -0.35f;
int16_t mag_cali_mode = 0;               // method for the dispatcher; 0 also applies sfi_array
float fss_gyr_effective_ratio = 0.8f;
float fss_mag_effective_stdev_min = 10.0f;  // uT
float fss_mag_effective_stdev_max = 30.0f;  // uT
float MAG_MVAVG_WEIGHT_MOVING = 1.0f, MAG_MVAVG_WEIGHT_STATIC = 0.1f;
float ORI_MVAVG_WEIGHT_MOVING = 1.0f, ORI_MVAVG_WEIGHT_STATIC = 0.1f;
float mag_radius_max = 60.0f;            // uT, largest acceptable fitted radius
float mag_radius_min = 25.0f;            // uT, smallest acceptable fitted radius
float mag_radius_wide = 10.0f;           // uT, tolerated distance from the mean radius
float mag_radius_out_rate = 0.0f;        // fraction of samples allowed outside mag_radius_wide
int16_t qvn_gyroflag = 0;                // 1 when the host has a gyroscope
int16_t m_interf_enviro_threshold_1 = 10;     // out-of-band samples before level 3 -> 2
int16_t m_interf_enviro_threshold_2 = 10;     // out-of-band samples before level -> 1
uint16_t mag_interf_countdown_threshold = 10; // samples of a disturbed period

// ==================================================================== outputs
float hdi_array[3] = {0.0f, 0.0f, 0.0f}; // uT, hard-iron offset in force
float sfi_array[9] = {1.0f, 0.0f, 0.0f,  // soft-iron matrix found by calibration
                      0.0f, 1.0f, 0.0f,
                      0.0f, 0.0f, 1.0f};
float static_sfi[9] = {0.0f};            // device matrix applied to every raw sample
int16_t qvn_accuracy = 0;                // 0..3
int16_t cali_update = 0;                 // 1 once an offset has been adopted (for the host)
int16_t sfi_update = 0;                  // 1 once a matrix has been adopted (for the host)
float mag_field_range = 0.0f;            // uT, clamp of every corrected sample
float cali_radius = 40.0f;               // uT, radius of the last fit
float qvn_radius = 40.0f;                // uT, radius in force
float qvn_mag[3] = {0.0f};               // uT, calibrated field after the filters
float qvn_nonfilter_mag[3] = {0.0f};     // uT, before the magnetic Kalman filter
float sg_mag[3] = {0.0f};                // uT, before any filter
int16_t qvn_cali_log[15] = {0};          // stage codes of the last validation
int16_t qvn_debug_log[30] = {0};         // stage codes of the last method step
int16_t mag_quad_accuracy = 0;           // level reached by the current attempt
int16_t mag_cali_check_err = 0;          // verdict of the last validation
int16_t mag_cali_check_ctn = 0;          // validations since load (wraps)

// ============================================================== working state
uint64_t timestamp_cali = 0;             // ns, last processed sample
float rad_ratio = 1.0f;                  // radius scale at low rates
int16_t rad_ratioint = 1;                // rad_ratio * 100, truncated
int16_t cali_mode_mode = 0;              // 4 during an interference period
int16_t interf_cnt_cnt = 0;              // samples left in the interference period
int64_t bef_flag = 0;                    // drift filter has a reference
float qvn_mag_bef[3] = {0.0f};           // uT, drift filter: previous sample
float qvn_mag_base[3] = {0.0f};          // uT, drift filter: base
int16_t log_cnt_lib = 0;                 // call counters of the periodic lines
int16_t log_cnt_lib2 = 0;
int16_t qvn_algo_odr = 30;               // Hz, nominal magnetometer rate in force
int16_t cali_first = 0;                  // 0 until a rate has been applied
int16_t g_odr_steady = 0;                // Hz, candidate new rate
int16_t g_odr_count = 0;                 // consecutive samples at the candidate
float dsc_data_mag[3][QVN_BATCH_CAPACITY] = {};   // uT, planar batch
float ctn_data_gyr[3][QVN_BATCH_CAPACITY] = {};   // rad/s, gyro with each batch sample
float ctn_data_gdt[QVN_BATCH_CAPACITY] = {};      // s, interval with each batch sample
float mag_data_tmp[3][QVN_BATCH_CAPACITY] = {};   // uT, batch minus the sphere centre
int16_t dsc_data_num = 0;                // samples stored
int16_t dsc_data_size = 300;             // batch size that triggers a fit (<= 300)
int16_t dsc_data_discard_size = 0;       // samples the gyro-aided method drops after a failure
Vec3f dsc_pre_mag = {0.0f, 0.0f, 0.0f};  // uT, low-passed reference of the distance test
float dsc_mag_distance = 0.072f;         // uT, minimum spacing of stored samples
int16_t dsc_reset_count = 0;             // consecutive rejections
float DM[81] = {0.0f};                   // fit work matrix, 9x9 row-major
float invDM[81] = {0.0f};                // its inverse
int16_t m_interf_enviro_counter1 = 0;
int16_t m_interf_enviro_counter2 = 0;
uint16_t mag_interf_countdown = 0;       // samples left in a disturbed period
float mag_interf_pre[3] = {0.0f};        // uT, sample of the last detection
float pre_mag[3] = {0.0f};               // uT, dynamic offset: previous sample
float mag_point[3] = {0.0f};             // uT, sum of good still samples
uint8_t count_D_offset = 0;
uint8_t reset_D_offset = 0;
float avg_mag_point[3] = {0.0f};         // uT, reference average
float D_offset[3] = {0.0f};              // uT, dynamic offset in force
float gyr_cali_data[900] = {0.0f};       // rad/s, x 0..299, y 300..599, z 600..899
int16_t gyr_cali_index = 0;
float gyr_cali_bias[3] = {0.0f};         // rad/s
float gyr_fusion_data[900] = {0.0f};
int16_t gyr_fusion_index = 0;
float gyr_fusion_bias[3] = {0.0f};
// clang-format on
