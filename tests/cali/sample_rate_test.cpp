// Sample-rate tracking: snapping, the 13th-sample confirmation and the batch
// sizes per rate.
#include <gtest/gtest.h>

#include "cali/cali.h"

namespace {

constexpr uint64_t kStart = 5000000000ull;
constexpr uint64_t kMs20 = 20000000;

void Feed(uint64_t t) {  // as the driver does: timestamp_cali follows each call
  qvn_odr_calculate(t);
  timestamp_cali = t;
}

TEST(SampleRate, BatchSizesPerRate) {
  const int16_t rates[] = {10, 15, 25, 50, 100};
  const int16_t sizes[] = {20, 30, 50, 100, 200}, discards[] = {5, 7, 12, 25, 50};
  for (int i = 0; i < 5; ++i) {
    qvn_caliodr_change(rates[i]);
    EXPECT_EQ(dsc_data_size, sizes[i]);
    EXPECT_EQ(dsc_data_discard_size, discards[i]);
  }
  g_cali_data_size_multiple = 1e9f;  // would wrap a 16-bit product
  qvn_caliodr_change(100);
  EXPECT_EQ(dsc_data_size, 300);
}

TEST(SampleRate, FirstRateThenSwitchOnThe13thConfirmingSample) {
  Feed(kStart);  // measured from 0 at load: 10 Hz
  ASSERT_EQ(qvn_algo_odr, 10);
  ASSERT_EQ(dsc_data_size, 20);
  uint64_t t = kStart;
  for (int i = 1; i <= 12; ++i) {
    Feed(t += kMs20);
    ASSERT_EQ(qvn_algo_odr, 10) << "sample " << i;
  }
  dsc_data_num = 7;
  Feed(t += kMs20);
  EXPECT_EQ(qvn_algo_odr, 50);
  EXPECT_EQ(dsc_data_size, 100);
  EXPECT_EQ(dsc_data_num, 0);
  EXPECT_EQ(mag_interf_countdown, 100);  // a two-second hold
  Feed(t += 17857142);                   // 56 Hz snaps to 100: a new candidate only
  EXPECT_EQ(g_odr_steady, 100);
  EXPECT_EQ(qvn_algo_odr, 50);
}

TEST(SampleRate, AlternatingIntervalsNeverSwitch) {
  Feed(kStart);
  uint64_t t = kStart;
  for (int i = 0; i < 200; ++i) {  // 25 Hz and 50 Hz alternately
    Feed(t += (i % 2 == 0) ? 2 * kMs20 : kMs20);
    ASSERT_EQ(qvn_algo_odr, 10);
  }
}

}  // namespace
