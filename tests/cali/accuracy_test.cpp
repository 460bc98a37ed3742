// Accuracy grading: given a field magnitude and a level, when the grader runs
// repeatedly, then the level drops on the documented call, never rises, and
// the two counters count non-consecutive samples.
#include <math.h>

#include <gtest/gtest.h>

#include "cali/cali.h"
#include "support/param_name.h"
#include "support/synthetic.h"

namespace {

// A field of the given magnitude (uT) spread over the three axes.
void Field(float magnitude, float out[3]) {
  const float k = magnitude / sqrtf(3.0f);
  out[0] = k, out[1] = -k, out[2] = k;
}

struct GradeCase {
  const char *name;
  float magnitude;
  int16_t level;    // incoming level, every call
  int calls_same;   // calls that return it unchanged
  int16_t then;     // result of the next call
} const kCases[] = {
    {"inside_narrow_band", 50.0f, 3, 200, 3},  {"above_narrow_band", 62.0f, 3, 10, 2},
    {"below_narrow_band", 28.0f, 3, 10, 2},    {"outside_wide_band", 80.0f, 3, 10, 1},
    {"wide_band_level2", 80.0f, 2, 10, 1},     {"narrow_band_ignored_at_2", 62.0f, 2, 200, 2},
    {"above_threshold", 1200.0f, 3, 0, 0},     {"level1_unchanged", 80.0f, 1, 200, 1},
};

class AccuracyGrade : public ::testing::TestWithParam<GradeCase> {};

TEST_P(AccuracyGrade, DropsOnTheDocumentedCall) {
  const GradeCase &c = GetParam();
  float f[3];
  Field(c.magnitude, f);
  for (int i = 0; i < c.calls_same; ++i) ASSERT_EQ(qvn_accuracy_level(f, c.level), c.level) << i;
  EXPECT_EQ(qvn_accuracy_level(f, c.level), c.then);
  // A counter that fired starts again from zero.
  if (c.then == 2) {
    EXPECT_EQ(m_interf_enviro_counter1, 0);
  }
  if (c.then == 1) {
    EXPECT_EQ(m_interf_enviro_counter2, 0);
  }
}

INSTANTIATE_TEST_SUITE_P(Defaults, AccuracyGrade, ::testing::ValuesIn(kCases), qvn_test::ByName());

TEST(AccuracyLevel, CountersAreNotConsecutiveAndClearOnlyInTheNarrowBand) {
  float narrow[3], wide[3], good[3];
  Field(62.0f, narrow), Field(80.0f, wide), Field(45.0f, good);
  // Alternating kinds: each leaves the other's counter alone.
  for (int i = 0; i < 8; ++i) {
    EXPECT_EQ(qvn_accuracy_level(narrow, 3), 3);
    EXPECT_EQ(qvn_accuracy_level(wide, 3), 3);
  }
  EXPECT_EQ(m_interf_enviro_counter1, 8);
  EXPECT_EQ(m_interf_enviro_counter2, 8);
  EXPECT_EQ(qvn_accuracy_level(good, 3), 3);
  EXPECT_EQ(m_interf_enviro_counter1 + m_interf_enviro_counter2, 0);
  // Both run out: the narrow one fires first, then the wide one.
  for (int i = 0; i < 10; ++i) qvn_accuracy_level(narrow, 3), qvn_accuracy_level(wide, 3);
  EXPECT_EQ(qvn_accuracy_level(narrow, 3), 2);
  EXPECT_EQ(qvn_accuracy_level(wide, 3), 1);
}

TEST(AccuracyLevel, NeverRaisesALevel) {
  qvn_test::Lcg lcg(42u);
  for (int i = 0; i < 5000; ++i) {
    float f[3];
    Field(60.0f * (lcg.Uniform() + 1.0f), f);
    const int16_t level = static_cast<int16_t>((lcg.Next() >> 8) % 4);
    const int16_t out = qvn_accuracy_level(f, level);
    ASSERT_TRUE(out >= 0 && out <= level) << i;
  }
}

}  // namespace
