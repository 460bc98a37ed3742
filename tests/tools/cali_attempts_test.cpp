// Calibration attempts decoded from the library's exported state: planted
// batches driven through the entry table, one for each way a fit is refused,
// the verdict checked against what the library then did with its offset.
#include <android/log.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "core/cali_attempts.h"
#include "core/event_csv.h"
#include "replay/library.h"
#include "replay/replay_loop.h"
#include "replay/sysfs_folder.h"
#include "support/param_name.h"
#include "support/synthetic.h"

namespace {

using qvn_tools::AttemptDecoder;
using qvn_tools::CaliAttempt;
using qvn_tools::CaliBound;
using qvn_tools::CaliMethod;
using qvn_tools::Event;
using qvn_tools::Sensor;
using qvn_tools::V3;

constexpr int64_t kStartNs = 1000000000;
constexpr int64_t kMagPeriodNs = 20000000;  // 50 Hz: batches of 100 samples
constexpr int kSamples = 400;               // rate settles and a 2 s hold passes in the first 115

struct Scene {
  const char *name;
  std::function<std::vector<V3>()> points;  // cycled through, library frame (identity matrix)
  float field_range;                        // 0: the profile's
  int16_t interference;                     // samples of interference period (oval method)
  uint16_t logging;                         // g_en_mtkScpLog after init
  CaliMethod method;
  CaliBound bound;
  const char *words;  // in the verdict
};

void PrintTo(const Scene &s, std::ostream *os) { *os << s.name; }

std::vector<V3> Shell(int n, double r, V3 c, const std::function<bool(int, V3)> &keep = nullptr,
                      const std::function<double(int)> &radius = nullptr) {
  std::vector<V3> out;
  std::vector<qvn_test::Point3> u = qvn_test::FibonacciSphere(n);
  for (int i = 0; i < n; ++i) {
    V3 d{u[i].x, u[i].y, u[i].z};
    if (keep && !keep(i, d)) continue;
    out.push_back(c + (radius ? radius(i) : r) * d);
  }
  return out;
}

// The library loaded with a private power-supply folder and initialised. A
// scene's points are planted in the library's frame (no device matrix) with
// its bounds; without a scene the library runs as it loads.
class Driven {
 public:
  explicit Driven(const Scene *s = nullptr) {
    qvn_tools::RouteLibraryLog(ANDROID_LOG_SILENT);
    std::string error;
    ok_ = lib_.Load(QVN_LIB_PATH, &error) && folder_.Create(0, &error) &&
          lib_.SetSysfsRoot(folder_.root().c_str());
    EXPECT_TRUE(ok_) << error;
    if (!ok_) return;
    ChipInfo chip;
    std::memset(&chip, 0, sizeof chip);
    lib_.api().QVN_CaliInitLib(&chip);
    if (s != nullptr) {
      float *sfi = static_cast<float *>(lib_.Symbol("static_sfi"));
      for (int i = 0; i < 9; ++i) sfi[i] = (i % 4 == 0) ? 1.0f : 0.0f;
      if (s->field_range > 0) *static_cast<float *>(lib_.Symbol("mag_field_range")) = s->field_range;
      *static_cast<int16_t *>(lib_.Symbol("interf_cnt_cnt")) = s->interference;
      *static_cast<uint16_t *>(lib_.Symbol("g_en_mtkScpLog")) = s->logging;
    }
    decoder_ = std::make_unique<AttemptDecoder>([this](const char *n) { return lib_.Symbol(n); });
  }

  bool ok() const { return ok_; }
  const qvn_tools::Library &lib() const { return lib_; }
  const std::vector<qvn_tools::StepRow> &rows() const { return rows_; }

  // Replays events with the decoder around every step; call when ok().
  const AttemptDecoder &Run(const std::vector<Event> &events) {
    AttemptDecoder &dec = *decoder_;
    EXPECT_TRUE(dec.ok()) << dec.missing();
    qvn_tools::ReplayConfig config;
    config.before_cali = [&dec]() { dec.BeforeStep(); };
    config.after_cali = [&dec](const qvn_tools::StepRow &r) { dec.AfterStep(r.t_ns); };
    qvn_tools::ReplayCounts counts;
    std::string error;
    EXPECT_TRUE(qvn_tools::RunReplay(lib_, events, config, &rows_, &counts, &error)) << error;
    return dec;
  }

 private:
  qvn_tools::Library lib_;
  qvn_tools::SysfsFolder folder_;
  bool ok_ = false;
  std::unique_ptr<AttemptDecoder> decoder_;
  std::vector<qvn_tools::StepRow> rows_;
};

std::vector<Event> MagEvents(const std::vector<V3> &pts) {
  std::vector<Event> ev;
  for (int i = 0; i < kSamples; ++i) {
    const V3 &p = pts[static_cast<size_t>(i) % pts.size()];
    ev.push_back({kStartNs + i * kMagPeriodNs, Sensor::kMag, p.x, p.y, p.z, i + 1});
  }
  return ev;
}

const V3 kCentre{30, -20, 40};
double TwoShells(int i) { return i % 10 < 3 ? 55.0 : 45.0; }

const Scene kScenes[] = {
    {"Passes", [] { return Shell(100, 45, kCentre); }, 0, 0, 1, CaliMethod::kBall,
     CaliBound::kNone, "adopted at level 3"},
    {"RadiusAboveMax", [] { return Shell(100, 80, kCentre); }, 0, 0, 1, CaliMethod::kBall,
     CaliBound::kRadiusAboveMax, "above the maximum 70"},
    {"MeanDistanceBelowMin", [] { return Shell(100, 20, kCentre); }, 0, 0, 1, CaliMethod::kBall,
     CaliBound::kMeanOutside, "outside 25..70"},
    // Three samples in ten lie 10 uT outside the others' shell.
    {"TooManyOffTheShell",
     [] { return Shell(100, 0, kCentre, nullptr, TwoShells); }, 0, 0, 1, CaliMethod::kBall,
     CaliBound::kOutliers, "30 of 100 samples"},
    {"TooManyOffTheShellUnlogged", [] { return Shell(100, 0, kCentre, nullptr, TwoShells); }, 0, 0,
     0, CaliMethod::kBall, CaliBound::kOutliers, "30 of 100 samples"},
    // Only the half facing the origin: the centre at x = 50 lies beyond a
    // sensor range of 49 uT while no sample reaches it.
    {"OffsetBeyondRange",
     [] { return Shell(200, 40, {50, 0, 0}, [](int, V3 d) { return d.x < -0.1; }); }, 49, 0, 1,
     CaliMethod::kBall, CaliBound::kOffsetRange, "sensor range of +-49"},
    // A flat ring (z = 0 exactly): the sphere's normal equations are singular.
    {"PlanarRingFailsTheFit",
     [] {
       std::vector<V3> v;
       for (int i = 0; i < 100; ++i)
         v.push_back({30 + 45 * std::cos(0.0628 * i), -20 + 45 * std::sin(0.0628 * i), 0});
       return v;
     },
     0, 0, 1, CaliMethod::kBall, CaliBound::kSphereFit, "sphere fit failed (its single"},
    // Interference periods fit with the oval method, which also fits a matrix.
    {"EllipsoidMatrixOutOfBounds",
     [] {
       std::vector<V3> v;
       for (const auto &p : qvn_test::EllipsoidPoints(100, 50, 40, 30, 20, -10, 30))
         v.push_back({p.x, p.y, p.z});
       return v;
     },
     0, 30000, 1, CaliMethod::kOval, CaliBound::kMatrix, "soft-iron element xx = 0.78"},
    {"OvalSphereRadiusOutOfRange", [] { return Shell(100, 80, kCentre); }, 0, 30000, 1,
     CaliMethod::kOval, CaliBound::kSphereRadius, "outside 25..70"},
};

class PlantedAttempt : public ::testing::TestWithParam<Scene> {};

TEST_P(PlantedAttempt, FirstAttemptNamesItsBound) {
  const Scene &s = GetParam();
  Driven d(&s);
  ASSERT_TRUE(d.ok());
  const AttemptDecoder &dec = d.Run(MagEvents(s.points()));
  ASSERT_FALSE(dec.attempts().empty()) << "no attempt decoded";
  const CaliAttempt &a = dec.attempts().front();
  EXPECT_EQ(a.method, s.method);
  EXPECT_EQ(a.bound, s.bound) << a.why;
  EXPECT_EQ(a.passed, s.bound == CaliBound::kNone);
  EXPECT_NE(a.why.find(s.words), std::string::npos) << a.why;
  // The decoded adoption agrees with what the library did: the offset at
  // load is zero, so it moved exactly when something was adopted.
  bool moved = a.offset_after[0] != 0 || a.offset_after[1] != 0 || a.offset_after[2] != 0;
  EXPECT_EQ(a.adopted, moved);
  EXPECT_EQ(a.samples, 100);
  if (a.adopted && !a.first_offset) {
    EXPECT_EQ(a.accuracy_after, 3);
    EXPECT_NEAR(a.centre.x, kCentre.x, 0.05);
    EXPECT_NEAR(a.centre.z, kCentre.z, 0.05);
    EXPECT_NEAR(a.radius, 45.0, 0.05);
  }
  // A refused oval fit before any offset still hands over its sphere centre.
  if (s.method == CaliMethod::kOval && s.bound == CaliBound::kMatrix) {
    EXPECT_TRUE(a.first_offset);
    EXPECT_EQ(a.accuracy_after, 1);
  }
}

INSTANTIATE_TEST_SUITE_P(Scenes, PlantedAttempt, ::testing::ValuesIn(kScenes), qvn_test::ByName());

TEST(CaliAttempts, StillPhoneNeverFillsABatchAndSaysWhy) {
  Scene s{"Still", nullptr, 0, 0, 1, CaliMethod::kBall, CaliBound::kNone, ""};
  Driven d(&s);
  ASSERT_TRUE(d.ok());
  // Noise of +-0.2 uT around one field vector: every sample lies within the
  // spacing of one already stored.
  std::vector<V3> pts;
  qvn_test::Lcg lcg(7);
  for (int i = 0; i < 50; ++i)
    pts.push_back({20 + 0.2 * lcg.Uniform(), -30 + 0.2 * lcg.Uniform(), 35 + 0.2 * lcg.Uniform()});
  const AttemptDecoder &dec = d.Run(MagEvents(pts));
  EXPECT_TRUE(dec.attempts().empty());
  EXPECT_GT(dec.stats().too_close, dec.stats().admitted);
  EXPECT_LT(dec.stats().most_filled, 100);
  std::string v = qvn_tools::CalibrationVerdict(dec.attempts(), dec.stats(), kStartNs);
  EXPECT_EQ(v.rfind("never calibrated: no batch of 100 samples", 0), 0u) << v;
  EXPECT_NE(v.find("did not turn"), std::string::npos) << v;
}

// The bundled flat walk: the library's own float fit reports a radius below
// the minimum while the samples' mean distance is within range, a refusal
// that exact synthetic shells cannot produce (their fitted radius is never
// below their mean distance).
TEST(CaliAttempts, FlatWalkRefusalsMatchTheLoggedValues) {
  std::vector<Event> events;
  std::string error;
  std::string path = std::string(QVN_SOURCE_DIR) + "/data/phone_walk_flat/events.csv";
  ASSERT_TRUE(qvn_tools::ReadEventCsv(path, &events, &error)) << error;
  Driven d;
  ASSERT_TRUE(d.ok());
  const AttemptDecoder &dec = d.Run(events);
  ASSERT_FALSE(dec.attempts().empty());
  const float min = *static_cast<const float *>(d.lib().Symbol("mag_radius_min"));
  int below_min = 0, adopted = 0;
  for (const CaliAttempt &a : dec.attempts()) {
    adopted += a.adopted;
    if (a.bound == CaliBound::kRadiusBelowMin) {
      below_min++;
      EXPECT_LT(a.logged_radius, min) << a.why;
      EXPECT_GE(a.logged_mean, min) << a.why;
    }
    if (a.bound == CaliBound::kMeanOutside) {
      EXPECT_LT(a.logged_mean, min) << a.why;
    }
  }
  EXPECT_GT(below_min, 0);
  // Every adoption moved the offset the replay reports.
  const std::vector<qvn_tools::StepRow> &rows = d.rows();
  size_t moves = 0;
  for (size_t i = 1; i < rows.size(); ++i)
    moves += std::memcmp(&rows[i].cal.bias_x, &rows[i - 1].cal.bias_x, 3 * sizeof(float)) != 0;
  EXPECT_EQ(static_cast<size_t>(adopted), moves);
}


// Coverage cells have equal areas: evenly spread directions fill them evenly,
// and a phone turned only about its vertical sweeps a band of them.
TEST(CaliGeometry, CoverageCellsHaveEqualAreas) {
  std::vector<int> count(qvn_tools::kCoverageCells, 0);
  const int n = 72000;
  for (const auto &p : qvn_test::FibonacciSphere(n))
    count[static_cast<size_t>(qvn_tools::CoverageCell({p.x, p.y, p.z}))]++;
  const double per_cell = static_cast<double>(n) / qvn_tools::kCoverageCells;
  for (int c : count) EXPECT_NEAR(c, per_cell, 0.05 * per_cell);
  std::vector<V3> ring;
  for (int i = 0; i < 360; ++i)
    ring.push_back({40 * std::cos(0.01745 * i), 40 * std::sin(0.01745 * i), 5});
  EXPECT_NEAR(qvn_tools::Coverage(ring, {0, 0, 0}), 12.0 / qvn_tools::kCoverageCells, 1e-9);
  EXPECT_EQ(qvn_tools::CoverageCell({0, 0, 0}), -1);
}

// The batch sphere is fitted far from the origin (raw fields reach 400 uT)
// without losing the centre, and refuses a flat ring.
TEST(CaliGeometry, SphereFitFarFromTheOrigin) {
  std::vector<V3> pts = Shell(300, 47, {61, -53, 410});
  qvn_tools::SphereFit f = qvn_tools::FitSphere(pts);
  ASSERT_TRUE(f.ok);
  EXPECT_NEAR(f.centre.x, 61, 1e-6);
  EXPECT_NEAR(f.centre.z, 410, 1e-6);
  EXPECT_NEAR(f.radius, 47, 1e-6);
  EXPECT_LT(f.residual_rms, 1e-6);
  std::vector<V3> ring;
  for (int i = 0; i < 100; ++i)
    ring.push_back({61 + 47 * std::cos(0.0628 * i), -53 + 47 * std::sin(0.0628 * i), 410});
  EXPECT_FALSE(qvn_tools::FitSphere(ring).ok);
}

}  // namespace
