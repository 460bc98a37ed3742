// The library's own log formatting against the C library's printf: the
// conversions on their own (edge values and random bit patterns; the
// exhaustive comparison over every bit pattern is a standalone bench
// program), whole lines, and the lines as the log receives them.
#include <android/log.h>
#include <float.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <math.h>
#include <stdio.h>

#include <string>

#include "common/log.h"
#include "support/log_capture.h"
#include "support/synthetic.h"

namespace {

using qvn_test::FromBits;

std::string Fixed6(float v) {
  char buf[qvn::kFixed6MaxLen + 1];
  *qvn::FormatFixed6(v, buf) = '\0';
  return buf;
}

std::string Printf(const char *format, ...) __attribute__((format(printf, 1, 2)));
std::string Printf(const char *format, ...) {
  char buf[qvn::kLogLineCapacity];
  va_list ap;
  va_start(ap, format);
  vsnprintf(buf, sizeof buf, format, ap);
  va_end(ap);
  return buf;
}

TEST(LogFormat, FloatsAsPrintfWritesThem) {
  const float edges[] = {
      0.0f, -0.0f, INFINITY, -INFINITY, NAN, -NAN, FLT_MAX, -FLT_MAX, FLT_MIN,
      FromBits(1),           // smallest denormal
      FromBits(0x007fffff),  // largest denormal
      0.0078125f,            // 1/128: a tie at the sixth decimal, kept even (...812)
      0.0234375f,            // 3/128: a tie rounded up to even (...438)
      -0.0000005f,           // rounds to -0.000000
      0.9999995f, 9.9999995f, 999999.94f,  // decimals carry into the integer part
      16777216.0f, 16777215.0f, 4294967296.0f, 1e20f, 3e38f, -123456.789f, 0.1f};
  for (float v : edges) EXPECT_EQ(Fixed6(v), Printf("%f", static_cast<double>(v))) << v;

  qvn_test::Lcg rng(12345u);
  for (int i = 0; i < 200000; ++i) {
    const float v = FromBits(rng.Next());
    ASSERT_EQ(Fixed6(v), Printf("%f", static_cast<double>(v)));
  }
}

TEST(LogFormat, IntegersAsPrintfWritesThem) {
  const long long values[] = {0, 1, -1, 9, 10, -10, INT_MAX, INT_MIN, LLONG_MAX, LLONG_MIN,
                              1000000000000LL};
  char buf[qvn::kIntMaxLen + 1];
  for (long long v : values) {
    *qvn::FormatInt(v, buf) = '\0';
    EXPECT_EQ(std::string(buf), Printf("%lld", v));
  }
}

TEST(LogFormat, LinesAsPrintfWritesThem) {
  using qvn::log_detail::Arg;
  const std::string long_text(2000, 'x');
  struct Case {
    const char *format;
    Arg args[4];
    size_t count;
    std::string want;
  } cases[] = {
      {"QVNlib: sfi array", {0, 0, 0, 0}, 0, "QVNlib: sfi array"},
      {"%d,%f,%d,%d\r\n", {-32768, -0.0f, 255, 7}, 4, Printf("%d,%f,%d,%d\r\n", -32768, -0.0, 255, 7)},
      {"[QVN_LOG] delta_time, %lld\n", {-9223372036854775807LL - 1, 0, 0, 0}, 1,
       Printf("[QVN_LOG] delta_time, %lld\n", LLONG_MIN)},
      {"ver:%s,hasNFC%d:\n", {"SRC68", 1, 0, 0}, 2, "ver:SRC68,hasNFC1:\n"},
      {"100%% %f", {FLT_MAX, 0, 0, 0}, 1, Printf("100%% %f", static_cast<double>(FLT_MAX))},
      // The log library cuts a line at 1023 bytes.
      {"read %s\n:", {long_text.c_str(), 0, 0, 0}, 1, Printf("read %s\n:", long_text.c_str())},
  };
  for (const Case &c : cases) {
    char line[qvn::kLogLineCapacity];
    const size_t n = qvn::log_detail::FormatLine(line, sizeof line, c.format, c.args, c.count);
    EXPECT_EQ(std::string(line), c.want) << c.format;
    EXPECT_EQ(n, c.want.size()) << c.format;
  }
}

// The log receives what __android_log_print would have given it, and the
// caller gets the same result, whether the priority is written or not.
TEST(LogFormat, WrittenAsTheLogLibraryWouldHave) {
  qvn_test::LogCapture capture;
  const float v[3] = {-52.25f, NAN, 1e-7f};
  for (int minimum : {ANDROID_LOG_VERBOSE, ANDROID_LOG_ERROR, ANDROID_LOG_SILENT}) {
    __android_log_set_minimum_priority(minimum);
    capture.Clear();
    const int want_d = __android_log_print(ANDROID_LOG_DEBUG, nullptr, "hdi: %f,%f,%f\r\n",
                                           static_cast<double>(v[0]), static_cast<double>(v[1]),
                                           static_cast<double>(v[2]));
    const int want_e = __android_log_print(ANDROID_LOG_ERROR, nullptr, "n %d %s", -3, "x");
    const int got_d = QVN_LOGD("hdi: %f,%f,%f\r\n", v[0], v[1], v[2]);
    const int got_e = QVN_LOGE("n %d %s", -3, "x");
    EXPECT_EQ(got_d, want_d) << minimum;
    EXPECT_EQ(got_e, want_e) << minimum;
    const auto &lines = capture.lines();
    ASSERT_EQ(lines.size() % 2, 0u);
    const size_t half = lines.size() / 2;
    EXPECT_EQ(half, minimum == ANDROID_LOG_VERBOSE ? 2u : minimum == ANDROID_LOG_ERROR ? 1u : 0u);
    for (size_t i = 0; i < half; ++i) {
      EXPECT_EQ(lines[half + i].priority, lines[i].priority);
      EXPECT_EQ(lines[half + i].text, lines[i].text);
    }
  }
}

}  // namespace
