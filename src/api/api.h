// Host interface: the stores behind the entry table, the device profile and
// the charging-current compensation. The 15 entry functions and the table are
// declared in the public header.
#ifndef QVNLIB_API_API_H
#define QVNLIB_API_API_H

#include "common/export.h"

QVN_EXPORT_BEGIN

// ---- api_state.cpp ----
extern Vec3f g_acc_data;
extern Vec3f g_gyr_data;
extern Vec3f g_mag_data;
extern Vec3f g_fusion_mag;
extern int64_t acc_timestamp;
extern int16_t g_accuracy;
extern int32_t qvn_caliParameter[3];
extern Vec3f mag_cali_pre;
extern float output_mag_lpf_ratio;
extern int32_t hashasNFC;
extern int16_t log_cnt;

// ---- device_profile.cpp ----
extern float fMagSP_nonfc[9];
int32_t qvn_hasNFC(void);
int32_t qvn_SettingLibParm(void);

// ---- charging.cpp ----
extern float comp_charging_x;
extern float comp_charging_y;
extern float comp_charging_z;
int32_t get_battery_current(void);
int32_t get_charge_mode(void);
int32_t check_usb_online(void);
float *qvn_linearCharging_Comp(float mag[3], int32_t current);

QVN_EXPORT_END

#endif  // QVNLIB_API_API_H
