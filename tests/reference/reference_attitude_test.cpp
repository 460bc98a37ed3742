// The reference attitude on simulated recordings with exact truth: heading and
// tilt errors in degrees (scored as the replay scores, one heading offset
// removed), the bias and its drift, and disturbed spans.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cmath>
#include <cstdio>

#include "core/ground_truth.h"
#include "core/scoring.h"
#include "reference/sim_imu.h"

namespace {

using qvn_reference::ReferenceResult;
using qvn_sim::SimRecording;
using qvn_sim::SimScene;

struct Scores {
  qvn_tools::ErrorStats all, in_disturbance;
};

// Scored from 5 s on, as a replay scores an output.
Scores Score(const ReferenceResult &r, const SimRecording &sim, const SimScene &scene) {
  std::vector<std::pair<int64_t, qvn_tools::Quat>> samples;
  for (const auto &s : sim.truth) {
    const Eigen::Quaterniond &q = s.second;
    samples.push_back({s.first, {q.w(), q.x(), q.y(), q.z()}});
  }
  qvn_tools::OrientationTruth truth;
  truth.SetSamples(samples);
  std::vector<qvn_tools::Estimate> est;
  for (const auto &s : r.samples) est.push_back({s.t_ns, {s.qw, s.qx, s.qy, s.qz}, true});
  const int64_t t0 = sim.truth.front().first;
  qvn_tools::ScoreWindow w;
  w.from_ns = t0 + 5000000000LL;
  Scores out;
  out.all = qvn_tools::ScoreEstimates(est, truth, w);
  if (scene.disturb_s > 0) {
    w.from_ns = t0 + static_cast<int64_t>(scene.disturb_from_s * 1e9);
    w.to_ns = w.from_ns + static_cast<int64_t>(scene.disturb_s * 1e9);
    out.in_disturbance = qvn_tools::ScoreEstimates(est, truth, w);
  }
  return out;
}

struct Case {
  const char *name;
  SimScene scene;
  double max_heading_rms, max_tilt_rms;  // degrees
};

SimScene Scene(double still_s, Eigen::Vector3d drift, double disturb_from, double disturb_s) {
  SimScene s;
  s.still_start_s = still_s;
  s.drift = drift;
  s.disturb_from_s = disturb_from;
  s.disturb_s = disturb_s;
  return s;
}

class ReferenceOnSimulation : public ::testing::TestWithParam<Case> {};

TEST_P(ReferenceOnSimulation, TracksTheTruth) {
  const Case &c = GetParam();
  SimRecording sim = qvn_sim::Simulate(c.scene);
  ReferenceResult r = qvn_reference::ComputeReference(sim.streams, nullptr);
  ASSERT_TRUE(r.ok) << r.error;
  Scores s = Score(r, sim, c.scene);
  ASSERT_GT(s.all.scored, 1000u);
  EXPECT_LT(s.all.heading_rms, c.max_heading_rms) << r.report;
  EXPECT_LT(s.all.tilt_rms, c.max_tilt_rms) << r.report;
  // The calibration found the planted offset (all cases sweep every direction).
  for (int k = 0; k < 3; ++k)
    EXPECT_NEAR(r.cal.offset[static_cast<size_t>(k)], c.scene.offset[k], 1.0);

  if (c.scene.still_start_s > 0) {
    ASSERT_FALSE(r.still.empty());
    EXPECT_NEAR(r.still.front().from_ns * 1e-9, 1.0, 0.5);  // starts at the recording's start
    EXPECT_NEAR(r.still_bias.bias.x(), c.scene.bias.x(), 2e-3);
  }
  // The smoothed bias starts right and, where it drifts, moves the drift's
  // way (the field's heading, weighted as the slow error it is, pins the
  // vertical axis's share only loosely, so not all the way).
  const Eigen::Vector3d b_end = c.scene.bias + c.scene.drift * c.scene.seconds;
  EXPECT_LT((r.smoothed_bias_start - c.scene.bias).norm(), 3e-3) << r.report;
  if (c.scene.drift.isZero()) {
    EXPECT_LT((r.smoothed_bias_end - b_end).norm(), 3e-3) << r.report;
  } else {
    EXPECT_LT((r.smoothed_bias_end - b_end).norm(), 0.85 * (c.scene.bias - b_end).norm())
        << r.report;
  }

  if (c.scene.disturb_s > 0) {
    // Nearly every disturbed field sample is flagged, few others are.
    size_t hit = 0, planted = 0, false_alarm = 0;
    for (size_t i = 0; i < sim.disturbed.size(); ++i) {
      planted += sim.disturbed[i];
      hit += sim.disturbed[i] && r.disturbances.disturbed[i];
      false_alarm += !sim.disturbed[i] && r.disturbances.disturbed[i];
    }
    EXPECT_GT(hit, planted * 9 / 10);
    EXPECT_LT(false_alarm, sim.disturbed.size() / 20);
    // No heading correction there: the gyroscope carries the heading, and the
    // confidence says so (sigma in the middle of the span above the start's).
    EXPECT_LT(s.in_disturbance.heading_rms, c.max_heading_rms);
    // The span is marked untrusted, the rest is not.
    const int64_t from =
        sim.truth.front().first + static_cast<int64_t>(c.scene.disturb_from_s * 1e9);
    const int64_t to = from + static_cast<int64_t>(c.scene.disturb_s * 1e9);
    size_t inside = 0, inside_low = 0, outside_low = 0;
    for (const auto &x : r.samples) {
      const bool in = x.t_ns >= from && x.t_ns < to;
      const bool low = x.sigma_deg >= qvn_reference::ReferenceOptions().disturbed_sigma_deg;
      inside += in;
      inside_low += in && low;
      outside_low += !in && low;
    }
    EXPECT_GT(inside_low, inside * 9 / 10);
    EXPECT_LT(outside_low, r.samples.size() / 20);
  }
}

const Eigen::Vector3d kNoDrift = Eigen::Vector3d::Zero();
// 0.0027 rad/s over 90 s (0.1 rad/s an hour): a warming phone.
const Eigen::Vector3d kDrift = Eigen::Vector3d(3e-5, -3e-5, 3e-5);

INSTANTIATE_TEST_SUITE_P(
    Recordings, ReferenceOnSimulation,
    ::testing::Values(Case{"moving", Scene(0, kNoDrift, -1, 0), 1.0, 0.5},
                      Case{"still_start", Scene(5, kNoDrift, -1, 0), 1.0, 0.5},
                      Case{"drifting_bias", Scene(5, kDrift, -1, 0), 1.0, 0.5},
                      Case{"disturbed_span", Scene(0, kNoDrift, 50, 8), 1.5, 0.5}),
    [](const ::testing::TestParamInfo<Case> &i) { return std::string(i.param.name); });

TEST(StillSpans, BiasAndDriftFromTwoSpans) {
  // Still at the start and again after 60 s: the drift between them is found.
  SimScene scene;
  scene.seconds = 70;
  scene.still_start_s = 0;
  scene.motion_scale = 0;
  scene.drift = Eigen::Vector3d(2e-4, 0, -1e-4);
  SimRecording sim = qvn_sim::Simulate(scene);
  // Shake the middle so the spans are two.
  for (auto &a : sim.streams.acc) {
    double t = (a.t_ns - 1000000000) * 1e-9;
    if (t > 10 && t < 55) a.v.x() += 2.0 * std::sin(t * 20);
  }
  std::vector<qvn_reference::StillSpan> spans =
      qvn_reference::FindStillSpans(sim.streams.acc, sim.streams.gyr, sim.streams.mag);
  ASSERT_EQ(spans.size(), 2u);
  qvn_reference::GyroBias b = qvn_reference::BiasFromStillSpans(spans);
  ASSERT_TRUE(b.drift_known);
  EXPECT_NEAR(b.drift.x(), 2e-4, 2e-5);
  EXPECT_NEAR(b.drift.z(), -1e-4, 2e-5);
  EXPECT_NEAR(b.At(1000000000 + 35000000000LL).x(), scene.bias.x() + 35 * 2e-4, 5e-4);
  EXPECT_NEAR(b.gravity, 9.81, 0.01);
}

TEST(StillSpans, ATurnAtAConstantRateIsNotStill) {
  // Flat on a turntable at 0.4 rad/s: gyroscope and accelerometer are as
  // steady as when still; only the field turning tells them apart.
  for (double rate : {0.0, 0.4}) {
    SCOPED_TRACE(rate);
    std::vector<qvn_reference::TimedVec> acc, gyr, mag;
    for (int i = 0; i < 1000; ++i) {
      const int64_t t = 10000000LL * i;
      const double a = rate * i * 0.01;
      acc.push_back({t, Eigen::Vector3d(0, 0, 9.81)});
      gyr.push_back({t, Eigen::Vector3d(0.01, 0, 0.01 + rate)});
      if (i % 2 == 0) mag.push_back({t, Eigen::Vector3d(20 * std::cos(a), 20 * std::sin(a), -35)});
    }
    const auto spans = qvn_reference::FindStillSpans(acc, gyr, mag);
    EXPECT_EQ(spans.size(), rate == 0 ? 1u : 0u);
  }
}

}  // namespace

namespace {

// The reference's file format through the truth reader: the sigma column is
// read, a threshold leaves the steps next to untrusted samples out, and a
// column that comes and goes or a negative sigma is refused with the line.
TEST(TruthWithSigma, ThresholdAndRefusals) {
  struct FileCase {
    const char *body;
    bool loads;
    const char *message;
  };
  const FileCase cases[] = {
      {"t_ns,qw,qx,qy,qz,sigma_deg\n0,1,0,0,0,0.5\n100,1,0,0,0,9\n200,1,0,0,0,0.5\n300,1,0,0,0,0."
       "5\n",
       true, ""},
      {"0,1,0,0,0,0.5\n100,1,0,0,0\n", false, ":2: expected 6 fields t_ns,qw,qx,qy,qz,sigma_deg"},
      {"0,1,0,0,0\n100,1,0,0,0,0.5\n", false, ":2: expected 5 fields t_ns,qw,qx,qy,qz"},
      {"0,1,0,0,0,-1\n", false, ":1: column sigma_deg '-1' is negative"},
      {"0,1,0,0,0,nan\n", false, ":1: column sigma_deg 'nan' is not a finite number"},
  };
  const std::string path = ::testing::TempDir() + "truth_sigma.csv";
  for (const FileCase &c : cases) {
    FILE *f = std::fopen(path.c_str(), "w");
    ASSERT_NE(f, nullptr);
    std::fputs(c.body, f);
    std::fclose(f);
    qvn_tools::OrientationTruth truth;
    std::string error;
    ASSERT_EQ(truth.Load(path, &error), c.loads) << c.body;
    EXPECT_NE(error.find(c.message), std::string::npos) << error;
    if (!c.loads) continue;
    qvn_tools::Quat q;
    EXPECT_TRUE(truth.At(150, &q));  // no threshold: all trusted
    EXPECT_EQ(truth.SetMaxSigma(2.0), 1u);
    EXPECT_FALSE(truth.At(50, &q));  // next to the untrusted sample
    EXPECT_FALSE(truth.At(100, &q));
    EXPECT_FALSE(truth.At(150, &q));
    EXPECT_TRUE(truth.At(250, &q));
    EXPECT_TRUE(truth.At(300, &q));
  }
}

}  // namespace

namespace {

// The command line: bad options and input end with status 2 and a message
// naming the problem; a good run writes the six columns.
TEST(ReferenceTool, RefusesBadInputAndWritesTheReference) {
  const std::string dir = ::testing::TempDir();
  const std::string events = dir + "ref_tool_events.csv", out = dir + "ref_tool_out.csv";
  qvn_sim::SimScene scene;
  scene.seconds = 20;
  qvn_sim::SimRecording sim = qvn_sim::Simulate(scene);
  FILE *f = std::fopen(events.c_str(), "w");
  ASSERT_NE(f, nullptr);
  std::fputs("t_ns,sensor,x,y,z\n", f);
  const std::pair<const char *, const std::vector<qvn_reference::TimedVec> *> streams[] = {
      {"acc", &sim.streams.acc}, {"gyr", &sim.streams.gyr}, {"mag", &sim.streams.mag}};
  for (const auto &s : streams)
    for (const auto &e : *s.second)
      std::fprintf(f, "%lld,%s,%.6f,%.6f,%.6f\n", static_cast<long long>(e.t_ns), s.first, e.v.x(),
                   e.v.y(), e.v.z());
  std::fclose(f);
  struct Run {
    std::string args;
    int status;
    const char *message;
  };
  const Run runs[] = {
      {"", 2, "usage"},
      {"--bogus " + events, 2, "unknown option --bogus"},
      {dir + "missing.csv", 2, "missing.csv"},
      {"--rate -3 " + events, 2, "--rate"},
      {"--smoother nope=1 " + events, 2, "--smoother nope=1"},
      {"--cal " + dir + "missing_cal.csv " + events, 2, "missing_cal.csv"},
      {"--out " + out + " " + events, 0, "reference samples"},
  };
  for (const Run &r : runs) {
    const std::string cmd = std::string(QVN_REFERENCE_TOOL) + " " + r.args + " 2>&1";
    FILE *p = popen(cmd.c_str(), "r");
    ASSERT_NE(p, nullptr);
    std::string text;
    char buf[512];
    while (std::fgets(buf, sizeof buf, p) != nullptr) text += buf;
    const int status = pclose(p);
    EXPECT_EQ(WEXITSTATUS(status), r.status) << r.args << "\n" << text;
    EXPECT_NE(text.find(r.message), std::string::npos) << r.args << "\n" << text;
  }
  // The events were written sensor by sensor: each stream in time order is
  // all the tool needs. Its output is a truth file with the sigma column.
  qvn_tools::OrientationTruth truth;
  std::string error;
  ASSERT_TRUE(truth.Load(out, &error)) << error;
  EXPECT_TRUE(truth.has_sigma());
  EXPECT_GT(truth.size(), 1500u);
}

}  // namespace
