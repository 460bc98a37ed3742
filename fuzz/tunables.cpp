// Typed table of the exported variables the host-calls fuzzer writes.
//
// Every slot is written only with values of its declared type, as a host that
// pokes a tunable by name would: any int16 into an int16 window length, any
// float (NaN included) into a threshold. Working state that hosts can reach by
// name and that indexes fixed buffers (ring cursors, batch counts, the rate in
// force) is listed too: the library must clamp it where it is used.
#include "tunables.h"

#include "api/api.h"
#include "cali/cali.h"
#include "fusion/fusion.h"
#include "optimal/optimal.h"

namespace qvn_fuzz {
namespace {

enum class Kind : uint8_t { kI16, kU16, kU8, kI32, kI64, kU64, kF32 };

struct Slot {
  const char *name;
  void *ptr;
  Kind kind;
};

#define S16(v) {#v, &(v), Kind::kI16}
#define U16(v) {#v, &(v), Kind::kU16}
#define F32(v) {#v, &(v), Kind::kF32}

// clang-format off
Slot g_slots[] = {
    // ---- window lengths, ring cursors and their float sources
    S16(acc_sort_num), S16(acc_avg_num), S16(mag_sort_num), S16(mag_avg_num),
    S16(acc_sort_cnt), S16(acc_avg_cnt), S16(mag_sort_cnt), S16(mag_avg_cnt),
    F32(g_acc_filter_avg_num), F32(g_acc_filter_mid_num),
    F32(g_mag_filter_avg_num), F32(g_mag_filter_mid_num),
    // ---- batch collection, rate tracking, gyroscope bias windows
    S16(dsc_data_size), S16(dsc_data_num), S16(dsc_data_discard_size),
    S16(dsc_reset_count), S16(dsc_reset_threshold), F32(dsc_mag_distance),
    S16(qvn_algo_odr), S16(cali_first), S16(g_odr_steady), S16(g_odr_count),
    F32(g_cali_data_size_multiple),
    S16(gyr_cali_index), S16(gyr_fusion_index), F32(gyr_filter_min), F32(gyr_filter_max),
    // ---- axis codes: tunables and the working copies
    S16(g_algo_acc_axis_x), S16(g_algo_acc_axis_y), S16(g_algo_acc_axis_z),
    S16(g_algo_mag_axis_x), S16(g_algo_mag_axis_y), S16(g_algo_mag_axis_z),
    S16(g_algo_gyro_axis_x), S16(g_algo_gyro_axis_y), S16(g_algo_gyro_axis_z),
    S16(acc_axis[0]), S16(acc_axis[1]), S16(acc_axis[2]),
    S16(mag_axis[0]), S16(mag_axis[1]), S16(mag_axis[2]),
    S16(gyr_axis[0]), S16(gyr_axis[1]), S16(gyr_axis[2]),
    // ---- modes and switches
    U16(g_qvn_caliMethod), S16(mag_cali_mode), S16(cali_mode_mode),
    U16(k7q_interference_mode), {"g_slect_swgyro_mode", &g_slect_swgyro_mode, Kind::kU8},
    U16(g_enable_softGyro_rv), U16(g_optimal_compensation_mode),
    U16(g_enable_mag_kalman_filter), U16(g_enable_mag_moving_average),
    U16(g_enable_mag_data_compensation), U16(g_enable_mag_sfi_array), U16(g_en_mtkScpLog),
    U16(g_radc), U16(g_dri_filter_set), U16(ori_algo_mode), U16(normal_threshold_control),
    U16(g_debounce_number_acc), U16(g_debounce_number_mag),
    U16(g_en_gyr0_zero), U16(g_en_gyr2_zero), S16(g_mag_id), S16(qvn_gyroflag),
    // ---- counters and countdowns
    S16(interf_cnt_cnt), U16(interf_cnt_cnt_sec), U16(mag_interf_countdown_threshold),
    U16(mag_interf_countdown), S16(m_interf_enviro_threshold_1),
    S16(m_interf_enviro_threshold_2), S16(m_interf_enviro_counter1),
    S16(m_interf_enviro_counter2), S16(fusion_start_delay_time),
    S16(fusion_start_delay_counter), S16(m_kmf_start_delay), S16(zdb_counter),
    S16(g_zdb_moving_times), S16(zdb_moving_number_acc), S16(zdb_moving_number_mag),
    S16(qvn_gyro_1st_data), S16(log_cnt), S16(log_cnt_lib), S16(log_cnt_lib2),
    S16(qvn_accuracy), S16(g_accuracy), S16(rad_ratioint), S16(mag_cali_check_ctn),
    {"count_D_offset", &count_D_offset, Kind::kU8},
    {"reset_D_offset", &reset_D_offset, Kind::kU8},
    {"qvn_caliParameter[0]", &qvn_caliParameter[0], Kind::kI32},
    {"qvn_caliParameter[1]", &qvn_caliParameter[1], Kind::kI32},
    {"qvn_caliParameter[2]", &qvn_caliParameter[2], Kind::kI32},
    {"hashasNFC", &hashasNFC, Kind::kI32},
    {"bef_flag", &bef_flag, Kind::kI64}, {"acc_timestamp", &acc_timestamp, Kind::kI64},
    {"timestamp_cali", &timestamp_cali, Kind::kU64},
    {"timestamp_fuison", &timestamp_fuison, Kind::kU64},
    // ---- calibration thresholds, ranges and results
    F32(g_sfi_xx_threshold_max), F32(g_sfi_xx_threshold_min), F32(g_sfi_yy_threshold_max),
    F32(g_sfi_yy_threshold_min), F32(g_sfi_zz_threshold_max), F32(g_sfi_zz_threshold_min),
    F32(g_sfi_yx_threshold_max), F32(g_sfi_yx_threshold_min), F32(g_sfi_zx_threshold_max),
    F32(g_sfi_zx_threshold_min), F32(g_sfi_zy_threshold_max), F32(g_sfi_zy_threshold_min),
    F32(sfi_xx_threshold_max), F32(sfi_zz_threshold_min), F32(sfi_zy_threshold_max),
    F32(g_cali_radius_threshold_max), F32(g_cali_radius_threshold_min),
    F32(g_cali_radius_threshold_wide), F32(g_cali_radius_threshold_rate),
    F32(g_cali_radius_threshold_wide_calied), F32(g_cali_radius_threshold_rate_calied),
    F32(g_cali_radius_threshold_wide_uncalied), F32(g_cali_radius_threshold_rate_uncalied),
    F32(g_cali_radius_threshold_wide_interfd), F32(g_cali_radius_threshold_rate_interfd),
    F32(g_qvn_cailDataDist), F32(g_qvn_cailDataDist_calied), F32(g_qvn_cailDataDist_interfd),
    F32(k7q_interference_threshold), F32(g_mag_interference_threshold),
    F32(g_mag_interference_range_1), F32(g_mag_interference_range_2),
    F32(m_interf_mag_threshold), F32(g_gyr_effective_ratio), F32(g_gyr_effective_min),
    F32(g_gyr_effective_stdev_max), F32(mag_guardband), F32(mag_field_range),
    F32(mag_radius_max), F32(mag_radius_min), F32(mag_radius_wide), F32(mag_radius_out_rate),
    F32(cali_radius), F32(qvn_radius), F32(rad_ratio), F32(mag_field_range_array[8]),
    F32(hdi_array[0]), F32(sfi_array[0]), F32(sfi_array[4]), F32(static_sfi[8]),
    F32(g_default_sfi_array[0]), F32(g_default_sfi_xx), F32(g_default_sfi_zx),
    F32(fMagSP_nonfc[4]), F32(g_m_movWei), F32(g_m_static), F32(g_o_movWei), F32(g_o_static),
    // ---- fusion, soft gyroscope and conditioning thresholds and gains
    F32(g_quat_weight_acc_normal), F32(g_quat_weight_mag_normal),
    F32(g_quat_weight_acc_delta), F32(g_quat_weight_mag_delta), F32(qacc_weight),
    F32(qmag_weight), F32(g_gyr_filter_expo_threshold), F32(g_zdb_acc_switch_threshold),
    F32(g_zdb_acc_set), F32(g_zdb_mag_set), F32(g_kmf_q), F32(g_kmf_r), F32(g_accKmf_q),
    F32(g_accKmf_r), F32(kmf_p), F32(acckmf_p), F32(g_zdb_mag_threshold),
    F32(g_lpf_acc_ratio), F32(g_lpf_mag_ratio), F32(g_zdb_acc_threshold_x),
    F32(g_zdb_acc_threshold_y), F32(g_zdb_acc_threshold_z), F32(g_zdb_mag_threshold_x),
    F32(g_zdb_mag_threshold_y), F32(g_zdb_mag_threshold_z), F32(zdb_acc_threshold),
    F32(zdb_acc_ratio), F32(zdb_mag_ratio), F32(debounce_degree), F32(normal_threshold),
    F32(non_normal_threshold), F32(normal_filter), F32(non_normal_filter),
    F32(zdb_counter_2), F32(g_m_kmf_q), F32(g_m_kmf_r), F32(m_kmf_p),
    F32(m_mvavg_weight_slow), F32(m_mvavg_weight_fast), F32(o_mvavg_weight_slow),
    F32(o_mvavg_weight_fast), F32(o_mvavg_weight_switch_angle),
    F32(trap_compensation_table[1]), F32(output_mag_lpf_ratio), F32(comp_charging_x),
};
// clang-format on

#undef S16
#undef U16
#undef F32

constexpr size_t kSlotCount = sizeof(g_slots) / sizeof(g_slots[0]);
static_assert(kSlotCount <= 256, "one index byte must reach every slot");
uint64_t g_snapshot[kSlotCount];

size_t Width(Kind k) {
  switch (k) {
    case Kind::kU8: return 1;
    case Kind::kI16:
    case Kind::kU16: return 2;
    case Kind::kI32:
    case Kind::kF32: return 4;
    case Kind::kI64:
    case Kind::kU64: return 8;
  }
  return 0;
}

}  // namespace

size_t TunableCount() { return kSlotCount; }

const char *TunableName(size_t i) { return g_slots[i % kSlotCount].name; }

void WriteTunable(size_t i, Reader &r) {
  const Slot &s = g_slots[i % kSlotCount];
  switch (s.kind) {
    case Kind::kU8: *static_cast<uint8_t *>(s.ptr) = r.U8(); break;
    case Kind::kI16: *static_cast<int16_t *>(s.ptr) = r.I16(); break;
    case Kind::kU16: *static_cast<uint16_t *>(s.ptr) = r.U16(); break;
    case Kind::kI32: *static_cast<int32_t *>(s.ptr) = r.I32(); break;
    case Kind::kI64: *static_cast<int64_t *>(s.ptr) = r.I64(); break;
    case Kind::kU64: *static_cast<uint64_t *>(s.ptr) = r.U64(); break;
    case Kind::kF32: *static_cast<float *>(s.ptr) = r.Float(); break;
  }
}

void SnapshotTunables() {
  for (size_t i = 0; i < kSlotCount; ++i) {
    g_snapshot[i] = 0;
    memcpy(&g_snapshot[i], g_slots[i].ptr, Width(g_slots[i].kind));
  }
}

void RestoreTunables() {
  for (size_t i = 0; i < kSlotCount; ++i) {
    memcpy(g_slots[i].ptr, &g_snapshot[i], Width(g_slots[i].kind));
  }
}

}  // namespace qvn_fuzz
