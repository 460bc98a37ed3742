// Median/mean input filters of the soft gyroscope, their reset and their
// configuration. Every case runs for both sensors: the two filters are one
// algorithm over two sets of rings.
#include <math.h>
#include <string.h>

#include <gtest/gtest.h>

#include "fusion/fusion.h"
#include "support/synthetic.h"

namespace {

using qvn_test::Bits;

using FilterFn = int16_t (*)(const float *, float *, uint16_t);

struct Sensor {
  const char *name;
  FilterFn filter;
  int16_t *sort_num;
  int16_t *avg_num;
  int16_t *sort_cnt;
  int16_t *avg_cnt;
  float (*sort)[QVN_SORT_CAPACITY];
};

const Sensor kSensors[] = {
    {"acc", acc_data_filter_func, &acc_sort_num, &acc_avg_num, &acc_sort_cnt, &acc_avg_cnt,
     acc_sort},
    {"mag", mag_data_filter_func, &mag_sort_num, &mag_avg_num, &mag_sort_cnt, &mag_avg_cnt,
     mag_sort},
};

class FilterTest : public ::testing::TestWithParam<Sensor> {
 protected:
  void SetLengths(int16_t sort_len, int16_t avg_len) {
    *GetParam().sort_num = sort_len;
    *GetParam().avg_num = avg_len;
  }
  int16_t Run(float x, float y, float z, float out[3]) {
    const float in[3] = {x, y, z};
    return GetParam().filter(in, out, 1);
  }
};

TEST_P(FilterTest, FirstSampleAfterResetPassesThroughAndRepeats) {
  SetLengths(7, 15);
  qvn_softgyro_initialize();
  float out[3] = {0, 0, 0};
  ASSERT_EQ(1, Run(0.1f, -3.7f, 9.3f, out));
  EXPECT_EQ(Bits(0.1f), Bits(out[0]));
  EXPECT_EQ(Bits(-3.7f), Bits(out[1]));
  EXPECT_EQ(Bits(9.3f), Bits(out[2]));
  EXPECT_EQ(0, *GetParam().sort_cnt);  // the pre-fill does not move the counts
  EXPECT_EQ(0, *GetParam().avg_cnt);
  // A second identical sample: the median is the sample, the mean of 15
  // copies divided one by one comes back to it within rounding.
  ASSERT_EQ(1, Run(0.1f, -3.7f, 9.3f, out));
  EXPECT_FLOAT_EQ(0.1f, out[0]);
  EXPECT_FLOAT_EQ(-3.7f, out[1]);
  EXPECT_FLOAT_EQ(9.3f, out[2]);
  EXPECT_EQ(1, *GetParam().sort_cnt);
}

// (0, 0, 1) once, then (0, 0, 5): the 7-sample median stays 1 until four
// slots hold 5, then the 15-sample mean climbs by 4/15 per sample.
TEST_P(FilterTest, StepResponseOfMedianThenMean) {
  SetLengths(7, 15);
  qvn_softgyro_initialize();
  float out[3];
  ASSERT_EQ(1, Run(0.0f, 0.0f, 1.0f, out));
  for (int call = 2; call <= 24; ++call) {
    ASSERT_EQ(1, Run(0.0f, 0.0f, 5.0f, out));
    const int fives = call < 5 ? 0 : (call - 4 > 15 ? 15 : call - 4);
    const float expected = 1.0f + 4.0f * static_cast<float>(fives) / 15.0f;
    EXPECT_NEAR(expected, out[2], 2e-6f) << "call " << call;  // 15 rounded terms
    EXPECT_EQ(0.0f, out[0]);
    EXPECT_EQ(0.0f, out[1]);
  }
}

TEST_P(FilterTest, UnfilteredModeOnlyNormalises) {
  SetLengths(7, 15);
  qvn_softgyro_initialize();
  float out[3];
  const float in[3] = {3.0f, 0.0f, -4.0f};
  ASSERT_EQ(1, GetParam().filter(in, out, 0));
  EXPECT_FLOAT_EQ(0.6f, out[0]);
  EXPECT_FLOAT_EQ(-0.8f, out[2]);
  EXPECT_EQ(0.0f, GetParam().sort[0][0]);  // nothing buffered
  // An all-zero sample is refused in both modes and leaves out alone.
  const float zero[3] = {0.0f, -0.0f, 0.0f};
  EXPECT_EQ(0, GetParam().filter(zero, out, 0));
  EXPECT_EQ(0, GetParam().filter(zero, out, 1));
  EXPECT_FLOAT_EQ(0.6f, out[0]);
}

// Reference: the descending adjacent-swap bubble sort that defines the median.
float BubbleMedian(const float *row, int n) {
  float a[QVN_SORT_CAPACITY];
  memcpy(a, row, sizeof(float) * static_cast<size_t>(n));
  for (int pass = 0; pass < n - 1; ++pass) {
    for (int j = 0; j < n - 1; ++j) {
      if (a[j] < a[j + 1]) {
        const float t = a[j];
        a[j] = a[j + 1];
        a[j + 1] = t;
      }
    }
  }
  return a[(n - 1) / 2];
}

// With a mean window of one, the output is the median itself (plus 0.0f), so
// it must equal the bubble sort's element bit for bit, also with duplicates,
// signed zeros, infinities and NaNs in the window.
TEST_P(FilterTest, MedianIsTheBubbleSortElement) {
  const float pool[] = {NAN, -NAN, INFINITY, -INFINITY, 0.0f, -0.0f, 1.0f, 1.0f, -2.5f, 3.25f};
  qvn_test::Lcg rng(7);
  for (int16_t n = 1; n <= QVN_SORT_CAPACITY; ++n) {
    SetLengths(n, 1);
    qvn_softgyro_initialize();
    float out[3];
    ASSERT_EQ(1, Run(1.0f, 1.0f, 1.0f, out));
    for (int call = 0; call < 3 * n + 5; ++call) {
      float xy[2];
      for (float &v : xy) {
        const uint32_t r = rng.Next() >> 8;
        v = (r % 3 == 0) ? pool[(r / 3) % 10] : static_cast<float>(r % 64) / 8.0f - 4.0f;
      }
      ASSERT_EQ(1, Run(xy[0], xy[1], 2.0f, out));  // z != 0: never looks like a reset
      for (int axis = 0; axis < 2; ++axis) {
        const float expected = 0.0f + BubbleMedian(GetParam().sort[axis], n) / 1.0f;
        if (isnan(expected)) {
          EXPECT_TRUE(isnan(out[axis])) << "n=" << n << " call " << call;
        } else {
          EXPECT_EQ(Bits(expected), Bits(out[axis])) << "n=" << n << " call " << call;
        }
      }
    }
  }
}

// The reset clears the first sort_num entries of every median row but only
// the first avg_num entries of row 0 of the mean ring; other state stays.
TEST_P(FilterTest, ResetClearsOnlyWhatTheLengthsCover) {
  const bool is_acc = GetParam().filter == acc_data_filter_func;
  float *mean[3] = {is_acc ? acc_old[0] : mag_old[0], is_acc ? acc_old[1] : mag_old[1],
                    is_acc ? acc_old[2] : mag_old[2]};
  for (int r = 0; r < 3; ++r) {
    for (int k = 0; k < 32; ++k) GetParam().sort[r][k] = mean[r][k] = 7.0f;
  }
  SetLengths(5, 6);
  *GetParam().sort_cnt = 3;
  zdb_counter = 9;
  qvn_softgyro_initialize();
  for (int k = 0; k < 8; ++k) {
    for (int r = 0; r < 3; ++r) EXPECT_EQ(k < 5 ? 0.0f : 7.0f, GetParam().sort[r][k]) << k;
    EXPECT_EQ(k < 6 ? 0.0f : 7.0f, mean[0][k]) << k;
    EXPECT_EQ(7.0f, mean[1][k]);
    EXPECT_EQ(7.0f, mean[2][k]);
  }
  EXPECT_EQ(0, *GetParam().sort_cnt);
  for (int i = 0; i < 9; ++i) EXPECT_EQ(i % 4 == 0 ? 1.0f : 0.0f, BRM_ref_inv[i]);
  EXPECT_EQ(9, zdb_counter);
}

INSTANTIATE_TEST_SUITE_P(BothSensors, FilterTest, ::testing::ValuesIn(kSensors),
                         [](const ::testing::TestParamInfo<Sensor> &p) {
                           return std::string(p.param.name);
                         });

// Lengths and counts written directly by a host, whatever their value, keep
// every index inside the rings; an oversized median window behaves as the
// full ring, and the output stays within the range of the inputs.
struct OddSetting {
  int16_t sort_num, avg_num, sort_cnt, avg_cnt;
};

class HostWrittenSettingsTest : public ::testing::TestWithParam<OddSetting> {};

TEST_P(HostWrittenSettingsTest, StayInsideTheRings) {
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
    if (call == 1) {
      acc_sort_cnt = s.sort_cnt;
      acc_avg_cnt = s.avg_cnt;
    }
    const float in[3] = {rng.Uniform() * 10.0f, rng.Uniform() * 10.0f, 20.0f + rng.Uniform()};
    ASSERT_EQ(1, acc_data_filter_func(in, acc_out, 1));
    ASSERT_EQ(1, mag_data_filter_func(in, mag_out, 1));
    for (int i = 0; i < 3; ++i) {
      ASSERT_TRUE(isfinite(acc_out[i]));
      EXPECT_LE(fabsf(acc_out[i]), 21.001f);
      if (same_mean && call > 1) {
        EXPECT_EQ(Bits(mag_out[i]), Bits(acc_out[i])) << call;
      }
    }
    ASSERT_GE(acc_sort_cnt, 0);
    ASSERT_LT(acc_sort_cnt, clamp_sort);
    ASSERT_GE(acc_avg_cnt, 0);
    ASSERT_LT(acc_avg_cnt, QVN_ACC_MEAN_CAPACITY);
  }
}

INSTANTIATE_TEST_SUITE_P(Odd, HostWrittenSettingsTest,
                         ::testing::Values(OddSetting{0, 0, 0, 0}, OddSetting{-5, -7, -3, -9},
                                           OddSetting{1000, 20, 500, 30000},
                                           OddSetting{32767, 32767, 32767, -32768},
                                           OddSetting{-32768, 40, 31, 39},
                                           OddSetting{7, 15, 12, 20}));

struct FilterSetting {
  int16_t kind;
  float p0, p1;
  int16_t result;
  // Expected afterwards; -1 keeps the start-up value.
  int16_t acc_avg, acc_sort, mag_avg, mag_sort;
  float band;
};

class SetFilterTest : public ::testing::TestWithParam<FilterSetting> {};

TEST_P(SetFilterTest, AcceptsClampsOrKeeps) {
  const FilterSetting s = GetParam();
  acc_avg_num = 15;
  acc_sort_num = 7;
  mag_avg_num = 15;
  mag_sort_num = 7;
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
    Table, SetFilterTest,
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
