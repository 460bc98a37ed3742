// Median/mean input filters of the soft gyroscope, for both sensors (one
// algorithm over two sets of rings). The library selects medians with
// networks; outputs and rings must stay bit for bit those of the design (a
// bubble sort, the element at (n - 1) / 2, the slot-order sum of entry / n),
// checked on random streams with ties, signed zeros, infinities and NaN, and
// on every 0/1 pattern (a network that selects the median of every 0/1 input
// selects it for every input).
#include <math.h>
#include <string.h>

#include <utility>

#include <gtest/gtest.h>

#include "fusion/fusion.h"
#include "support/param_name.h"
#include "support/synthetic.h"

namespace {

using qvn_test::Bits;
using qvn_test::SameBits;

struct Sensor {
  const char *name;
  int16_t (*filter)(const float *, float *, uint16_t);
  float (*sort)[QVN_SORT_CAPACITY];
  float *mean[3];
  int mean_capacity;
  int16_t *sort_num, *avg_num, *sort_cnt, *avg_cnt;
};

const Sensor kSensors[] = {
    {"Acc", acc_data_filter_func, acc_sort, {acc_old[0], acc_old[1], acc_old[2]},
     QVN_ACC_MEAN_CAPACITY, &acc_sort_num, &acc_avg_num, &acc_sort_cnt, &acc_avg_cnt},
    {"Mag", mag_data_filter_func, mag_sort, {mag_old[0], mag_old[1], mag_old[2]},
     QVN_MAG_MEAN_CAPACITY, &mag_sort_num, &mag_avg_num, &mag_sort_cnt, &mag_avg_cnt},
};

// The design's median: n - 1 passes of adjacent swaps when a[j] < a[j + 1].
float BubbleMedian(const float *row, int n) {
  float a[QVN_SORT_CAPACITY];
  memcpy(a, row, sizeof(float) * n);
  for (int pass = 0; pass < n - 1; ++pass) {
    for (int j = 0; j + 1 < n; ++j) {
      if (a[j] < a[j + 1]) std::swap(a[j], a[j + 1]);
    }
  }
  return a[(n - 1) / 2];
}

// One filtered step as designed, on copies of the rings (windows inside
// their capacities, counts inside their windows).
struct Model {
  float sort[3][QVN_SORT_CAPACITY];
  float mean[3][QVN_ACC_MEAN_CAPACITY];
  int ns, na, s, c;

  void Step(const float in[3], float out[3]) {
    if (sort[0][s] == 0.0f && sort[1][s] == 0.0f && sort[2][s] == 0.0f) {
      for (int a = 0; a < 3; ++a) {
        for (int k = 0; k < ns; ++k) sort[a][k] = in[a];
        for (int k = 0; k < na; ++k) mean[a][k] = in[a];
        out[a] = in[a];
      }
      return;
    }
    for (int a = 0; a < 3; ++a) sort[a][s] = in[a];
    s = (s + 1 == ns) ? 0 : s + 1;
    for (int a = 0; a < 3; ++a) mean[a][c] = BubbleMedian(sort[a], ns);
    c = (c + 1 == na) ? 0 : c + 1;
    for (int a = 0; a < 3; ++a) {
      float sum = 0.0f;
      for (int k = 0; k < na; ++k) sum += mean[a][k] / static_cast<float>(na);
      out[a] = sum;
    }
  }
};

class Filter : public ::testing::TestWithParam<Sensor> {
 protected:
  void Reset(int16_t sort_len, int16_t avg_len) {
    *GetParam().sort_num = sort_len, *GetParam().avg_num = avg_len;
    qvn_softgyro_initialize();
  }
  int16_t Run(float x, float y, float z, float out[3], uint16_t filtered = 1) {
    const float in[3] = {x, y, z};
    return GetParam().filter(in, out, filtered);
  }
};

// After a reset the first sample passes through bit for bit and fills the
// rings without moving the counts. Then z steps from 1 to 5: the 7-sample
// median stays 1 until four slots hold 5, and the 15-sample mean climbs by
// 4/15 per sample; x and y repeat, and the mean of 15 copies divided one by
// one comes back to them within rounding.
TEST_P(Filter, FirstSampleAfterResetThenStepResponse) {
  Reset(7, 15);
  float out[3];
  ASSERT_EQ(1, Run(0.1f, -3.7f, 1.0f, out));
  EXPECT_TRUE(Bits(out[0]) == Bits(0.1f) && Bits(out[1]) == Bits(-3.7f) && out[2] == 1.0f);
  EXPECT_TRUE(*GetParam().sort_cnt == 0 && *GetParam().avg_cnt == 0);
  for (int call = 2; call <= 24; ++call) {
    ASSERT_EQ(1, Run(0.1f, -3.7f, 5.0f, out));
    const int fives = call < 5 ? 0 : (call - 4 > 15 ? 15 : call - 4);
    EXPECT_NEAR(1.0f + 4.0f * static_cast<float>(fives) / 15.0f, out[2], 2e-6f) << call;
    EXPECT_FLOAT_EQ(0.1f, out[0]);
    EXPECT_FLOAT_EQ(-3.7f, out[1]);
    EXPECT_TRUE(call != 2 || *GetParam().sort_cnt == 1);
  }
}

TEST_P(Filter, UnfilteredModeOnlyNormalisesAndZeroIsRefused) {
  Reset(7, 15);
  float out[3];
  ASSERT_EQ(1, Run(3.0f, 0.0f, -4.0f, out, 0));
  EXPECT_FLOAT_EQ(0.6f, out[0]);
  EXPECT_FLOAT_EQ(-0.8f, out[2]);
  EXPECT_EQ(0.0f, GetParam().sort[0][0]);  // nothing buffered
  EXPECT_EQ(0, Run(0.0f, -0.0f, 0.0f, out, 0));
  EXPECT_EQ(0, Run(0.0f, -0.0f, 0.0f, out, 1));
  EXPECT_FLOAT_EQ(0.6f, out[0]);  // a refused sample leaves out alone
}

// The reset clears the first sort_num entries of every median row but only
// the first avg_num entries of row 0 of the mean ring; other state stays.
TEST_P(Filter, ResetClearsOnlyWhatTheLengthsCover) {
  const Sensor &f = GetParam();
  for (int r = 0; r < 3; ++r) {
    for (int k = 0; k < 32; ++k) f.sort[r][k] = f.mean[r][k] = 7.0f;
  }
  *f.sort_cnt = 3;
  zdb_counter = 9;
  Reset(5, 6);
  for (int k = 0; k < 8; ++k) {
    for (int r = 0; r < 3; ++r) EXPECT_EQ(k < 5 ? 0.0f : 7.0f, f.sort[r][k]) << k;
    EXPECT_EQ(k < 6 ? 0.0f : 7.0f, f.mean[0][k]) << k;
    EXPECT_TRUE(f.mean[1][k] == 7.0f && f.mean[2][k] == 7.0f) << k;
  }
  EXPECT_EQ(0, *f.sort_cnt);
  for (int i = 0; i < 9; ++i) EXPECT_EQ(i % 4 == 0 ? 1.0f : 0.0f, BRM_ref_inv[i]);
  EXPECT_EQ(9, zdb_counter);
}

TEST_P(Filter, RandomStreamsMatchTheDesign) {
  const Sensor &f = GetParam();
  qvn_test::Lcg rng(31);
  const float odd[8] = {0.0f, -0.0f, 1.0f, -1.0f, 2.5f, INFINITY, -INFINITY, NAN};
  for (int round = 0; round < 300; ++round) {
    Model m;
    m.ns = 1 + static_cast<int>(rng.Next() % QVN_SORT_CAPACITY);
    m.na = 1 + static_cast<int>(rng.Next() % static_cast<uint32_t>(f.mean_capacity));
    if (round % 3 == 0) m.ns = 3 + 2 * static_cast<int>(rng.Next() % 4);  // the networks' lengths
    *f.sort_num = static_cast<int16_t>(m.ns), *f.avg_num = static_cast<int16_t>(m.na);
    *f.sort_cnt = 0, *f.avg_cnt = 0;
    m.s = m.c = 0;
    for (int a = 0; a < 3; ++a) {
      memset(f.sort[a], 0, sizeof(float) * QVN_SORT_CAPACITY);
      memset(m.sort[a], 0, sizeof m.sort[a]);
    }
    // 0: ordinary values only; 1, 2: more and more odd ones (NaN included);
    // 3: only -0, +0, 1 and -1, so that windows hold both zeros at the median.
    const uint32_t kind = round % 4;
    for (int step = 0; step < 120; ++step) {
      float in[3];
      for (float &v : in) {
        if (kind == 3) {
          v = odd[rng.Next() % 4];
        } else {
          v = (rng.Next() % 4 < kind) ? odd[rng.Next() % 8] : 40.0f * rng.Uniform();
        }
      }
      float want[3] = {0, 0, 0}, got[3] = {0, 0, 0};
      const bool refused = in[0] == 0.0f && in[1] == 0.0f && in[2] == 0.0f;
      if (!refused) m.Step(in, want);
      ASSERT_EQ(f.filter(in, got, 1), refused ? 0 : 1);
      ASSERT_TRUE(SameBits(got, want, 3)) << "round " << round << " step " << step;
      for (int a = 0; a < 3; ++a) {
        ASSERT_TRUE(SameBits(f.sort[a], m.sort[a], m.ns)) << "round " << round;
        ASSERT_TRUE(SameBits(f.mean[a], m.mean[a], m.na)) << "round " << round;
      }
    }
  }
}

TEST_P(Filter, EveryZeroOnePatternThroughTheMedian) {
  const Sensor &f = GetParam();
  for (int n = 1; n <= 11; ++n) {
    *f.sort_num = static_cast<int16_t>(n), *f.avg_num = 1;
    for (uint32_t bits = 0; bits < (1u << n); ++bits) {
      // Three different two-valued axes, none zero: the networks' own case.
      float rows[3][QVN_SORT_CAPACITY];
      for (int k = 0; k < n; ++k) {
        const bool one = ((bits >> k) & 1u) != 0;
        rows[0][k] = one ? 2.0f : 1.0f;
        rows[1][k] = one ? -1.0f : 3.0f;
        rows[2][k] = one ? 1e-30f : -1e30f;
      }
      for (int a = 0; a < 3; ++a) memcpy(f.sort[a], rows[a], sizeof(float) * n);
      *f.sort_cnt = 0, *f.avg_cnt = 0;
      const float in[3] = {rows[0][0], rows[1][0], rows[2][0]};
      float out[3];
      ASSERT_EQ(f.filter(in, out, 1), 1);
      for (int a = 0; a < 3; ++a) {
        const float want = BubbleMedian(rows[a], n);
        ASSERT_TRUE(SameBits(&f.mean[a][0], &want, 1)) << "n " << n << " bits " << bits;
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(BothSensors, Filter, ::testing::ValuesIn(kSensors), qvn_test::ByName());

// Lengths and counts written directly by a host, whatever their value, keep
// every index inside the rings; an oversized median window behaves as the
// full ring, and the output stays within the range of the inputs.
struct OddSetting {
  int16_t sort_num, avg_num, sort_cnt, avg_cnt;
};

class HostWrittenSettings : public ::testing::TestWithParam<OddSetting> {};

TEST_P(HostWrittenSettings, StayInsideTheRings) {
  const OddSetting s = GetParam();
  qvn_softgyro_initialize();
  acc_sort_num = s.sort_num;
  acc_avg_num = s.avg_num;
  // The magnetometer runs with the same lengths brought into range by hand.
  const int16_t clamp_sort = s.sort_num < 1 ? 1 : (s.sort_num > 32 ? 32 : s.sort_num);
  mag_sort_num = clamp_sort;
  mag_avg_num = s.avg_num < 1 ? 1 : (s.avg_num > 32 ? 32 : s.avg_num);
  const int16_t acc_mean = s.avg_num < 1 ? 1 : (s.avg_num > 40 ? 40 : s.avg_num);
  const bool same_mean = acc_mean == mag_avg_num;
  qvn_test::Lcg rng(3);
  float acc_out[3], mag_out[3];
  for (int call = 0; call < 200; ++call) {
    if (call == 1) acc_sort_cnt = s.sort_cnt, acc_avg_cnt = s.avg_cnt;
    const float in[3] = {rng.Uniform() * 10.0f, rng.Uniform() * 10.0f, 20.0f + rng.Uniform()};
    ASSERT_EQ(1, acc_data_filter_func(in, acc_out, 1));
    ASSERT_EQ(1, mag_data_filter_func(in, mag_out, 1));
    for (int i = 0; i < 3; ++i) {
      ASSERT_TRUE(isfinite(acc_out[i]));
      EXPECT_LE(fabsf(acc_out[i]), 21.001f);
      EXPECT_TRUE(!same_mean || call <= 1 || Bits(mag_out[i]) == Bits(acc_out[i])) << call;
    }
    ASSERT_TRUE(acc_sort_cnt >= 0 && acc_sort_cnt < clamp_sort);
    ASSERT_TRUE(acc_avg_cnt >= 0 && acc_avg_cnt < QVN_ACC_MEAN_CAPACITY);
  }
}

INSTANTIATE_TEST_SUITE_P(Odd, HostWrittenSettings,
                         ::testing::Values(OddSetting{0, 0, 0, 0}, OddSetting{-5, -7, -3, -9},
                                           OddSetting{1000, 20, 500, 30000},
                                           OddSetting{32767, 32767, 32767, -32768},
                                           OddSetting{-32768, 40, 31, 39},
                                           OddSetting{7, 15, 12, 20}));

struct FilterSetting {
  int16_t kind;
  float p0, p1;
  int16_t result;
  int16_t acc_avg, acc_sort, mag_avg, mag_sort;  // afterwards; -1 keeps the start-up value
  float band;
};

class SetFilter : public ::testing::TestWithParam<FilterSetting> {};

TEST_P(SetFilter, AcceptsClampsOrKeeps) {
  const FilterSetting s = GetParam();
  acc_avg_num = mag_avg_num = 15;
  acc_sort_num = mag_sort_num = 7;
  debounce_degree = 0.002f;
  const float params[2] = {s.p0, s.p1};
  EXPECT_EQ(s.result, set_softgyro_filter(s.kind, params));
  EXPECT_EQ(s.acc_avg < 0 ? 15 : s.acc_avg, acc_avg_num);
  EXPECT_EQ(s.acc_sort < 0 ? 7 : s.acc_sort, acc_sort_num);
  EXPECT_EQ(s.mag_avg < 0 ? 15 : s.mag_avg, mag_avg_num);
  EXPECT_EQ(s.mag_sort < 0 ? 7 : s.mag_sort, mag_sort_num);
  EXPECT_EQ(s.band, debounce_degree);
}

INSTANTIATE_TEST_SUITE_P(
    Table, SetFilter,
    ::testing::Values(FilterSetting{1, 12.9f, 5.99f, 1, 12, 5, -1, -1, 0.002f},
                      FilterSetting{2, 20.0f, 3.0f, 1, -1, -1, 20, 3, 0.002f},
                      FilterSetting{1, 15.9f, 0.0f, 1, -1, -1, -1, -1, 0.002f},
                      FilterSetting{1, NAN, 5.0f, 1, -1, -1, -1, -1, 0.002f},
                      FilterSetting{1, 100.0f, 50.0f, 1, 40, 32, -1, -1, 0.002f},
                      FilterSetting{2, INFINITY, 1e9f, 1, -1, -1, 32, 32, 0.002f},
                      FilterSetting{3, 1.0f, 0.0f, 1, -1, -1, -1, -1, 1.0f},
                      FilterSetting{3, 1.5f, 0.0f, 1, -1, -1, -1, -1, 0.002f},
                      FilterSetting{3, -0.1f, 0.0f, 1, -1, -1, -1, -1, 0.002f},
                      FilterSetting{4, 10.0f, 5.0f, 0, -1, -1, -1, -1, 0.002f}));

}  // namespace
