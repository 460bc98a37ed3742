// libFuzzer harness: the tools' readers of hostile text, and the time
// arithmetic that runs on whatever they accept.
//
// Input layout: one selector byte (modulo 5: event CSV strict, event CSV with
// non-finite values and any order allowed, orientation truth, calibration
// truth, tunable set), then the file's bytes. Accepted events and
// truth samples are pushed through the same conversions the tools make:
// spans between timestamps anywhere in int64, seconds and milliseconds from
// any double to nanoseconds, truth lookups and shifts at the extremes. A
// finding is a crash, a sanitizer report (overflow, float-to-int overflow,
// out-of-bounds) or a reader that accepted a value it must refuse.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include <cfloat>
#include <cmath>
#include <string>
#include <vector>

#include "core/checked.h"
#include "core/event_csv.h"
#include "core/ground_truth.h"
#include "core/set_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace {

using namespace qvn_tools;

// What the tools derive from two times and a number read from a file.
volatile double g_sink_d;
volatile int64_t g_sink_i;

void UseTimes(int64_t a, int64_t b, double v) {
  g_sink_d = SecondsBetween(a, b);
  g_sink_i = AddSeconds(a, v);
  g_sink_i = SaturatingInt64(v * 1e6);
  g_sink_i = SaturatingAdd(a, SaturatingInt64(v));
  if (FitsInt64(v)) g_sink_i = static_cast<int64_t>(v);
}

void Events(const char *text, size_t size, bool lenient) {
  EventCsvOptions options;
  options.allow_nonfinite = lenient;
  options.allow_unsorted = lenient;
  EventReader reader;
  reader.OpenMemory(text, size, "fuzz.csv", options);
  Event e, first{};
  int64_t prev = 0;
  size_t n = 0;
  while (reader.Next(&e)) {
    if (n++ == 0) first = e;
    // The reader's promises.
    if (e.sensor == Sensor::kCur && !FitsInt64(e.x)) abort();
    if (!lenient && e.sensor != Sensor::kCur &&
        !(std::fabs(e.x) <= FLT_MAX && std::fabs(e.y) <= FLT_MAX && std::fabs(e.z) <= FLT_MAX))
      abort();
    if (!lenient && n > 1 && e.t_ns < prev) abort();
    UseTimes(first.t_ns, e.t_ns, e.x);
    UseTimes(prev, e.t_ns, e.y);
    prev = e.t_ns;
  }
  // A bad line always says where.
  if (!reader.error().empty() && reader.error().compare(0, 9, "fuzz.csv:") != 0) abort();
}

void Truth(const char *text, size_t size) {
  OrientationTruth truth;
  std::string error;
  if (!truth.LoadText(text, size, "gt.csv", &error)) return;
  const int64_t first = truth.first_ns(), last = truth.last_ns();
  Quat q;
  for (int64_t t : {first, last, first / 2 + last / 2, INT64_MIN, INT64_MAX}) {
    if (truth.At(t, &q) && !std::isfinite(q.w + q.x + q.y + q.z)) abort();
  }
  truth.Shift(SaturatingInt64(static_cast<double>(last) * 1e6));
  truth.Shift(INT64_MIN);
  (void)truth.At(0, &q);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  const char *text = reinterpret_cast<const char *>(data + 1);
  const size_t n = size - 1;
  std::string error;
  switch (data[0] % 5) {
    case 0:
      Events(text, n, false);
      break;
    case 1:
      Events(text, n, true);
      break;
    case 2:
      Truth(text, n);
      break;
    case 3: {
      CalibrationTruth truth;
      if (truth.LoadText(text, n, "truth.txt", &error)) {
        const std::vector<double> *o = truth.Get("offset_uT");
        if (o != nullptr && o->size() != 3) abort();
      }
      break;
    }
    case 4: {
      std::vector<Assignment> set;
      if (ReadSetText(text, n, "set.txt", &set, &error)) {
        for (const Assignment &a : set) {
          if (a.first + a.count > a.info->count()) abort();
          g_sink_d = static_cast<double>(FormatAssignment(a).size());
        }
      }
      break;
    }
  }
  return 0;
}
