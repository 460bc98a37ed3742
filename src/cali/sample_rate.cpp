// Magnetometer sample-rate tracking.
//
// Many sizes in calibration and fusion are counted in samples, so they follow
// the measured rate. Each interval gives an instantaneous rate
//   q = 1e9 / (t - t_prev)            (integer division, ns -> Hz)
// which is snapped to one of 10, 15, 25, 50 or 100 Hz. The first measured
// rate is applied at once; afterwards a different rate must be measured on 13
// consecutive samples before it replaces the one in force:
//   sample 1 records the candidate, samples 2..12 count, sample 13 applies.
// Applying a rate rewrites every rate-dependent setting and restarts the
// calibration batch, the start-up ramps and a two-second interference hold.
#include "cali/cali.h"
#include "fusion/fusion.h"
#include "math/convert.h"
#include "math/math.h"
#include "optimal/optimal.h"

namespace {

constexpr uint64_t kNsPerSecond = 1000000000ull;

// Lower bounds (Hz) of the snapping bands and the rates they give.
constexpr int32_t kBand100 = 56;
constexpr int32_t kBand50 = 31;
constexpr int32_t kBand25 = 21;
constexpr int32_t kBand15 = 13;
constexpr int16_t kRate100 = 100, kRate50 = 50, kRate25 = 25, kRate15 = 15, kRate10 = 10;

// Counted confirmations before a new rate applies (the 13th sample applies).
constexpr int16_t kConfirmCount = 11;

constexpr int16_t kMinBatch = 20;
constexpr int16_t kMaxBatch = QVN_BATCH_CAPACITY;
constexpr double kDiscardFraction = 0.25;  // of the batch, gyro-aided method

constexpr int16_t kFusionDelaySeconds = 6;      // start-up ramp of the fusion weights
constexpr int16_t kInterfCountdownSeconds = 4;  // length of a disturbed period
constexpr int16_t kEnviroSeconds = 3;           // out-of-band time before a downgrade
constexpr int16_t kHoldSeconds = 2;             // hold that every rate change starts
constexpr int kHoldMask = 0x7FFE;

int16_t SnapRate(int32_t q) {
  if (q >= kBand100) return kRate100;
  if (q >= kBand50) return kRate50;
  if (q >= kBand25) return kRate25;
  if (q >= kBand15) return kRate15;
  return kRate10;
}

// The four moving-average time bases are refreshed from the tunables and the
// per-sample weights recomputed as 1 / (rate * time base).
void ApplyWeights(int16_t r) {
  MAG_MVAVG_WEIGHT_MOVING = g_m_movWei;
  MAG_MVAVG_WEIGHT_STATIC = g_m_static;
  ORI_MVAVG_WEIGHT_MOVING = g_o_movWei;
  ORI_MVAVG_WEIGHT_STATIC = g_o_static;
  const float fr = static_cast<float>(r);
  m_mvavg_weight_fast = 1.0f / (fr * g_m_movWei);
  m_mvavg_weight_slow = 1.0f / (fr * g_m_static);
  o_mvavg_weight_fast = 1.0f / (fr * g_o_movWei);
  o_mvavg_weight_slow = 1.0f / (fr * g_o_static);
}

// Every rate-dependent assignment, in the order that has always been used.
// Integer products are 16-bit, as the variables they land in.
void ApplyRate(int16_t r) {
  ApplyWeights(r);
  // Kept 32-bit before the clamp, so an oversized multiple still lands on the
  // buffer capacity instead of wrapping.
  const int32_t n = qvn::TruncToI32(g_cali_data_size_multiple * static_cast<float>(r));
  dsc_data_size = (n >= kMaxBatch)   ? kMaxBatch
                  : (n <= kMinBatch) ? kMinBatch
                                     : static_cast<int16_t>(n);
  fusion_start_delay_time = static_cast<int16_t>(r * kFusionDelaySeconds);
  fusion_start_delay_counter = fusion_start_delay_time;
  cali_first = 1;
  qvn_algo_odr = r;
  dsc_data_discard_size = qvn::TruncToI16(static_cast<double>(dsc_data_size) * kDiscardFraction);
  dsc_mag_distance = g_qvn_cailDataDist / qvn_sqrt(static_cast<float>(r));
  mag_interf_countdown_threshold = static_cast<uint16_t>(r * kInterfCountdownSeconds);
  m_interf_enviro_threshold_1 = static_cast<int16_t>(r * kEnviroSeconds);
  m_interf_enviro_threshold_2 = static_cast<int16_t>(r * kEnviroSeconds);
  gyr_cali_index = 0;
  mag_interf_countdown = static_cast<uint16_t>((r * kHoldSeconds) & kHoldMask);
  gyr_fusion_index = 0;
  clear_data_buffer();
  fusion_startup = 1;
  qvn_softgyro_initialize();
  qvn_gyro_1st_data = 0;
}

}  // namespace

void qvn_odr_calculate(uint64_t t) {
  // timestamp_cali belongs to the driver, which updates it after this call.
  if (t == timestamp_cali) return;
  // Unsigned on purpose: a clock that went backwards gives a huge divisor and
  // q = 0, which snaps to the slowest rate.
  const uint64_t q = kNsPerSecond / (t - timestamp_cali);
  const int16_t r = SnapRate(static_cast<int32_t>(static_cast<uint32_t>(q)));

  // The first rate is applied at once; qvn_algo_odr then equals r below.
  if (cali_first == 0) ApplyRate(r);

  if (r == qvn_algo_odr) {
    g_odr_count = 0;
  } else if (r != g_odr_steady) {
    // A new candidate; any sample at another rate restarts the count.
    g_odr_steady = r;
    g_odr_count = 0;
  } else {
    const int16_t k = g_odr_count;
    g_odr_count = static_cast<int16_t>(k + 1);
    if (k < kConfirmCount) return;
    ApplyRate(r);
    g_odr_count = 0;
  }
}

void qvn_caliodr_change(int16_t r) { ApplyRate(r); }

void qvn_odr_change(int16_t r) {
  // The light variant: weights, rate and fusion ramp only; the batch, its
  // spacing and the interference settings stay as they are.
  ApplyWeights(r);
  qvn_algo_odr = r;
  fusion_start_delay_time = static_cast<int16_t>(r * kFusionDelaySeconds);
  fusion_start_delay_counter = fusion_start_delay_time;
  gyr_cali_index = 0;
  gyr_fusion_index = 0;
  fusion_startup = 1;
  qvn_softgyro_initialize();
  qvn_gyro_1st_data = 0;
}
