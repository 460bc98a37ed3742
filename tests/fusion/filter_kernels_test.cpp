// The soft-gyroscope input filters select the median without sorting (a
// selection network or a rank count, lanes across the three axes) and
// average across the axes at once. Their outputs and rings must stay those
// of the filter as designed: a bubble sort of the median window, the element
// at (n - 1) / 2, and the slot-order sum of entry / n. This file runs that
// design beside the library on random streams full of ties, -0/+0 pairs,
// infinities and NaN, and drives every 0/1 pattern through the median
// networks (a comparator network that selects the median of every 0/1 input
// selects it for every input).
#include <math.h>
#include <string.h>

#include <gtest/gtest.h>

#include "fusion/fusion.h"
#include "support/synthetic.h"

namespace {

struct Sensor {
  const char *name;
  int16_t (*filter)(const float *, float *, uint16_t);
  float (*sort)[QVN_SORT_CAPACITY];
  float *mean[3];
  int mean_capacity;
  int16_t *sort_num, *avg_num, *sort_cnt, *avg_cnt;
};

Sensor Acc() {
  return {"Acc", acc_data_filter_func, acc_sort, {acc_old[0], acc_old[1], acc_old[2]},
          QVN_ACC_MEAN_CAPACITY, &acc_sort_num, &acc_avg_num, &acc_sort_cnt, &acc_avg_cnt};
}

Sensor Mag() {
  return {"Mag", mag_data_filter_func, mag_sort, {mag_old[0], mag_old[1], mag_old[2]},
          QVN_MAG_MEAN_CAPACITY, &mag_sort_num, &mag_avg_num, &mag_sort_cnt, &mag_avg_cnt};
}

// The design's median: n - 1 passes of adjacent swaps when a[j] < a[j + 1].
float BubbleMedian(const float *row, int n) {
  float a[QVN_SORT_CAPACITY];
  memcpy(a, row, sizeof(float) * n);
  for (int pass = 0; pass < n - 1; ++pass) {
    for (int j = 0; j + 1 < n; ++j) {
      if (a[j] < a[j + 1]) {
        const float t = a[j];
        a[j] = a[j + 1], a[j + 1] = t;
      }
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

bool SameBits(const float *a, const float *b, int n) { return memcmp(a, b, sizeof(float) * n) == 0; }

class FilterKernels : public ::testing::TestWithParam<Sensor (*)()> {};

TEST_P(FilterKernels, RandomStreamsMatchTheDesign) {
  const Sensor f = GetParam()();
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
      ASSERT_TRUE(SameBits(got, want, 3)) << f.name << " round " << round << " step " << step;
      for (int a = 0; a < 3; ++a) {
        ASSERT_TRUE(SameBits(f.sort[a], m.sort[a], m.ns)) << "round " << round;
        ASSERT_TRUE(SameBits(f.mean[a], m.mean[a], m.na)) << "round " << round;
      }
    }
  }
}

TEST_P(FilterKernels, EveryZeroOnePatternThroughTheMedian) {
  const Sensor f = GetParam()();
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

INSTANTIATE_TEST_SUITE_P(Sensors, FilterKernels, ::testing::Values(Acc, Mag),
                         [](const ::testing::TestParamInfo<Sensor (*)()> &i) {
                           return i.param().name;
                         });

}  // namespace
