// Calibration operations: one QVN_DoCaliAPI step while the batch is
// collecting, the battery-current read on its own, and the step that runs a
// full fit for each of the three methods.
//
// The collecting step runs on the stream after a warm-up that calibrates the
// offset; a step that would fill the batch puts the count back to half a
// batch instead (what the halving after a fit leaves), so the figure is the
// collecting step alone and never averages in a fit. The fit steps restore
// the calibration state captured just before a sample that completed a batch
// and time that one call again and again.
// The step without the battery-current read, and the fit steps, replace the
// read by the current read once at setup (ExcludeBatteryRead in
// bench_support.h).
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "api/api.h"
#include "bench_support.h"
#include "cali/cali.h"
#include "fusion/fusion.h"

namespace qvn_bench {
namespace {

constexpr double kWarmupSeconds = 20.0;
constexpr int kSearchLimit = 20000;      // magnetometer samples tried for a fit point
constexpr int16_t kLongInterference = 30000;  // samples; outlasts any benchmark
constexpr int16_t kStageFitRan = 333;    // qvn_debug_log[2] once a method has fitted

CaliResult g_out;

void HoldCollecting() {
  if (dsc_data_num >= dsc_data_size - 1) dsc_data_num = static_cast<int16_t>(dsc_data_size / 2);
}

void RunCollectingStep() {
  const SensorEvent m = FeedUntilMag();
  MAG_LIB_API_INTERFACE.QVN_CaliApiSetMagData(&m);
  MAG_LIB_API_INTERFACE.QVN_DoCaliAPI(&m, &g_out);
  HoldCollecting();
}

void Collecting(Log log, CurrentFile current) {
  ResetLibrary(2, log, current);  // hwGyro 2: no fusion anywhere, calibration alone
  Replay(kWarmupSeconds);
}

void SetupCollectingWithFile() { Collecting(Log::kSilent, CurrentFile::kPresent); }

void CollectingReadExcluded(Log log) {
  Collecting(log, CurrentFile::kPresent);
  ExcludeBatteryRead();
}
void SetupCollectingReadExcluded() { CollectingReadExcluded(Log::kSilent); }
void SetupCollectingReadExcludedDropped() { CollectingReadExcluded(Log::kDropped); }
void SetupCollectingReadExcludedWritten() { CollectingReadExcluded(Log::kWritten); }
void SetupCollectingNoFile() { Collecting(Log::kSilent, CurrentFile::kAbsent); }
void SetupCollectingNoFileDropped() { Collecting(Log::kDropped, CurrentFile::kAbsent); }
void SetupCollectingNoFileWritten() { Collecting(Log::kWritten, CurrentFile::kAbsent); }

void SetupReadWithFile() { ResetLibrary(2, Log::kSilent, CurrentFile::kPresent); }
void SetupReadNoFile() { ResetLibrary(2, Log::kSilent, CurrentFile::kAbsent); }
volatile int32_t g_current_sink;
void RunRead() { g_current_sink = get_battery_current(); }

// Everything one calibration step may change, so that the step can be
// repeated from the same state.
struct CaliState {
  float mag[3][QVN_BATCH_CAPACITY], gyr[3][QVN_BATCH_CAPACITY], gdt[QVN_BATCH_CAPACITY];
  int16_t num, reset_count, accuracy, interf_cnt, mode_mode, cali_mode, gyr_index;
  int16_t counter1, counter2, odr_count, odr_steady, ratio_int, log0, log1, log2;
  int16_t delay_counter, startup, cali_upd, sfi_upd, g_acc;
  uint16_t countdown;
  Vec3f pre, acc, gyro;
  uint64_t t_cali;
  float hdi[3], sfi[9], gyr_bias[3], interf_pre[3], d_offset[3];
  float cradius, qradius, ratio;
  int32_t param[3];
};

CaliState g_state;
SensorEvent g_fit_sample;

void Take(CaliState *s) {
  memcpy(s->mag, dsc_data_mag, sizeof s->mag);
  memcpy(s->gyr, ctn_data_gyr, sizeof s->gyr);
  memcpy(s->gdt, ctn_data_gdt, sizeof s->gdt);
  s->num = dsc_data_num, s->reset_count = dsc_reset_count, s->accuracy = qvn_accuracy;
  s->interf_cnt = interf_cnt_cnt, s->mode_mode = cali_mode_mode, s->cali_mode = mag_cali_mode;
  s->gyr_index = gyr_cali_index, s->counter1 = m_interf_enviro_counter1;
  s->counter2 = m_interf_enviro_counter2, s->odr_count = g_odr_count, s->odr_steady = g_odr_steady;
  s->ratio_int = rad_ratioint, s->log0 = log_cnt, s->log1 = log_cnt_lib, s->log2 = log_cnt_lib2;
  s->delay_counter = fusion_start_delay_counter, s->startup = fusion_startup;
  s->cali_upd = cali_update, s->sfi_upd = sfi_update, s->g_acc = g_accuracy;
  s->countdown = mag_interf_countdown;
  s->pre = dsc_pre_mag, s->acc = g_acc_data, s->gyro = g_gyr_data, s->t_cali = timestamp_cali;
  memcpy(s->hdi, hdi_array, sizeof s->hdi);
  memcpy(s->sfi, sfi_array, sizeof s->sfi);
  memcpy(s->gyr_bias, gyr_cali_bias, sizeof s->gyr_bias);
  memcpy(s->interf_pre, mag_interf_pre, sizeof s->interf_pre);
  memcpy(s->d_offset, D_offset, sizeof s->d_offset);
  s->cradius = cali_radius, s->qradius = qvn_radius, s->ratio = rad_ratio;
  memcpy(s->param, qvn_caliParameter, sizeof s->param);
}

void Restore(const CaliState &s) {
  memcpy(dsc_data_mag, s.mag, sizeof s.mag);
  memcpy(ctn_data_gyr, s.gyr, sizeof s.gyr);
  memcpy(ctn_data_gdt, s.gdt, sizeof s.gdt);
  dsc_data_num = s.num, dsc_reset_count = s.reset_count, qvn_accuracy = s.accuracy;
  interf_cnt_cnt = s.interf_cnt, cali_mode_mode = s.mode_mode, mag_cali_mode = s.cali_mode;
  gyr_cali_index = s.gyr_index, m_interf_enviro_counter1 = s.counter1;
  m_interf_enviro_counter2 = s.counter2, g_odr_count = s.odr_count, g_odr_steady = s.odr_steady;
  rad_ratioint = s.ratio_int, log_cnt = s.log0, log_cnt_lib = s.log1, log_cnt_lib2 = s.log2;
  fusion_start_delay_counter = s.delay_counter, fusion_startup = s.startup;
  cali_update = s.cali_upd, sfi_update = s.sfi_upd, g_accuracy = s.g_acc;
  mag_interf_countdown = s.countdown;
  dsc_pre_mag = s.pre, g_acc_data = s.acc, g_gyr_data = s.gyro, timestamp_cali = s.t_cali;
  memcpy(hdi_array, s.hdi, sizeof s.hdi);
  memcpy(sfi_array, s.sfi, sizeof s.sfi);
  memcpy(gyr_cali_bias, s.gyr_bias, sizeof s.gyr_bias);
  memcpy(mag_interf_pre, s.interf_pre, sizeof s.interf_pre);
  memcpy(D_offset, s.d_offset, sizeof s.d_offset);
  cali_radius = s.cradius, qvn_radius = s.qradius, rad_ratio = s.ratio;
  memcpy(qvn_caliParameter, s.param, sizeof s.param);
}

// Walks the stream until a sample makes `mode` fit a full batch, keeping the
// state from just before that sample.
void FindFitPoint(int16_t mode, const char *what) {
  for (int i = 0; i < kSearchLimit; ++i) {
    const SensorEvent m = FeedUntilMag();
    Take(&g_state);
    qvn_debug_log[2] = 0;
    MAG_LIB_API_INTERFACE.QVN_CaliApiSetMagData(&m);
    MAG_LIB_API_INTERFACE.QVN_DoCaliAPI(&m, &g_out);
    if (mag_cali_mode == mode && qvn_debug_log[2] >= kStageFitRan) {
      g_fit_sample = m;
      return;
    }
  }
  fprintf(stderr, "no %s fit within %d samples\n", what, kSearchLimit);
  abort();
}

void SetupFit(int16_t mode, const char *what) {
  ResetLibrary(2, Log::kSilent, CurrentFile::kPresent);
  Replay(kWarmupSeconds);
  if (mode != 2) {
    // The driver hands the interference period's method to the dispatcher.
    k7q_interference_mode = static_cast<uint16_t>(mode);
    mag_interf_countdown = 0;
    interf_cnt_cnt = kLongInterference;
  }
  // The read is timed on its own; the fit step is the calibration's cost.
  ExcludeBatteryRead();
  FindFitPoint(mode, what);
}

void SetupBallFit() { SetupFit(2, "ball"); }
void SetupOvalFit() { SetupFit(0, "oval"); }
void SetupGyroFit() { SetupFit(1, "gyroscope-aided"); }
void PrepareFit() { Restore(g_state); }
void RunFit() { MAG_LIB_API_INTERFACE.QVN_DoCaliAPI(&g_fit_sample, &g_out); }

}  // namespace

std::vector<Operation> CaliOperations() {
  return {
      {"cali_step/collecting/read_excluded", "<= 250 ns", SetupCollectingReadExcluded, nullptr,
       RunCollectingStep},
      {"cali_step/collecting/read_excluded/log_dropped", "-", SetupCollectingReadExcludedDropped,
       nullptr, RunCollectingStep},
      {"cali_step/collecting/read_excluded/log_written", "<= 10 us",
       SetupCollectingReadExcludedWritten, nullptr, RunCollectingStep},
      {"cali_step/collecting/current_file", "-", SetupCollectingWithFile, nullptr,
       RunCollectingStep},
      {"cali_step/collecting/no_current_file", "-", SetupCollectingNoFile, nullptr,
       RunCollectingStep},
      {"cali_step/collecting/no_current_file/log_dropped", "-", SetupCollectingNoFileDropped,
       nullptr, RunCollectingStep},
      {"cali_step/collecting/no_current_file/log_written", "-", SetupCollectingNoFileWritten,
       nullptr, RunCollectingStep},
      {"battery_read/current_file", "-", SetupReadWithFile, nullptr, RunRead},
      {"battery_read/no_current_file", "-", SetupReadNoFile, nullptr, RunRead},
      {"cali_fit_step/ball", "-", SetupBallFit, PrepareFit, RunFit},
      {"cali_fit_step/oval", "-", SetupOvalFit, PrepareFit, RunFit},
      {"cali_fit_step/gyro", "-", SetupGyroFit, PrepareFit, RunFit},
  };
}

}  // namespace qvn_bench
