// The reference attitude pipeline (reference_attitude.h).
#include "reference/reference_attitude.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace qvn_reference {
namespace {

using Eigen::Matrix3d;
using Eigen::Quaterniond;
using Eigen::Vector3d;

constexpr double kNsPerS = 1e9;
constexpr double kRadPerSToDegPerH = 57.29577951308232 * 3600.0;

Matrix3d RowMajor(const std::array<double, 9> &m) {
  Matrix3d r;
  r << m[0], m[1], m[2], m[3], m[4], m[5], m[6], m[7], m[8];
  return r;
}

std::vector<MagSample> ToMagSamples(const std::vector<TimedVec> &mag) {
  std::vector<MagSample> out;
  out.reserve(mag.size());
  for (const TimedVec &m : mag) out.push_back({m.t_ns, m.v.x(), m.v.y(), m.v.z()});
  return out;
}

// Phone-frame up vector at every magnetometer sample from a run's attitude.
std::vector<Vector3d> UpVectors(const SmootherRun &run, const std::vector<TimedVec> &gyr,
                                const std::vector<TimedVec> &mag) {
  AttitudeTrack track(run, gyr);
  std::vector<Vector3d> up(mag.size(), Vector3d::UnitZ());
  Quaterniond q;
  double ts = 0, hs = 0;
  for (size_t i = 0; i < mag.size(); ++i) {
    if (!track.At(mag[i].t_ns, &q, &ts, &hs)) {
      // Before the first or after the last step: the nearest step.
      const SmoothedState &s = mag[i].t_ns < run.t0_ns ? run.steps.front() : run.steps.back();
      q = s.q;
    }
    up[i] = q.conjugate() * Vector3d::UnitZ();
  }
  return up;
}

std::string Fmt(const char *format, double a, double b = 0, double c = 0, double d = 0) {
  char buf[256];
  std::snprintf(buf, sizeof buf, format, a, b, c, d);
  return buf;
}

// Calibration with a fixed soft iron (correction C) and the offset refitted:
// C raw = field + C b, so the offset of the corrected samples is C b.
bool RefitOffset(const MagCalResult &base, const std::vector<TimedVec> &raw,
                 const std::vector<Vector3d> &up, MagCalResult *out, std::string *note) {
  const Matrix3d c = RowMajor(base.correction);
  std::vector<TimedVec> corrected(raw.size());
  for (size_t i = 0; i < raw.size(); ++i) corrected[i] = {raw[i].t_ns, c * raw[i].v};
  VerticalOffsetFit f = FitOffsetWithVertical(corrected, up);
  if (!f.ok) {
    *note = f.error;
    return false;
  }
  *out = base;
  Vector3d b = RowMajor(base.soft_iron) * Vector3d(f.offset[0], f.offset[1], f.offset[2]);
  for (int k = 0; k < 3; ++k) out->offset[static_cast<size_t>(k)] = b[k];
  out->radius = f.radius;
  out->residual_rms = f.residual_rms;
  out->inlier = f.inlier;
  out->inliers = static_cast<size_t>(std::count(f.inlier.begin(), f.inlier.end(), true));
  return true;
}

}  // namespace

ReferenceResult ComputeReference(const Streams &rec, const Streams *cal_rec,
                                 const ReferenceOptions &o) {
  ReferenceResult res;
  if (rec.acc.size() < 10 || rec.gyr.size() < 10) {
    res.error = "the recording needs accelerometer and gyroscope samples (found " +
                std::to_string(rec.acc.size()) + " and " + std::to_string(rec.gyr.size()) + ")";
    return res;
  }
  std::string &rep = res.report;

  // 1. Still spans and bias.
  res.still = FindStillSpans(rec.acc, rec.gyr, rec.mag, o.still);
  res.still_bias = BiasFromStillSpans(res.still, o.still);
  std::vector<std::pair<int64_t, int64_t>> still_spans;
  double still_s = 0;
  for (const StillSpan &s : res.still) {
    still_spans.push_back({s.from_ns, s.to_ns});
    still_s += static_cast<double>(s.to_ns - s.from_ns) / kNsPerS;
  }
  SmootherOptions so = o.smoother;
  if (res.still_bias.known) {
    so.gravity = res.still_bias.gravity;
  } else {
    std::vector<double> norms;
    for (const TimedVec &a : rec.acc) norms.push_back(a.v.norm());
    std::nth_element(norms.begin(), norms.begin() + static_cast<std::ptrdiff_t>(norms.size() / 2),
                     norms.end());
    so.gravity = norms[norms.size() / 2];
  }
  rep += Fmt("still spans: %.0f, %.1f s in all\n", static_cast<double>(res.still.size()), still_s);
  if (res.still_bias.known) {
    const Vector3d &b = res.still_bias.bias;
    rep += Fmt("gyroscope bias while still: %.5f %.5f %.5f rad/s\n", b.x(), b.y(), b.z());
    if (res.still_bias.drift_known) {
      Vector3d d = res.still_bias.drift * kRadPerSToDegPerH;
      rep += Fmt("gyroscope bias drift between still spans: %.3f %.3f %.3f deg/s per hour\n", d.x(),
                 d.y(), d.z());
    }
  }

  // 3 (first, it needs no field). Gravity only: tilt.
  SmoothedState start0;
  bool have_start = false;
  if (res.still_bias.known) {
    // Start the bias where the still spans put it.
    SmootherRun probe = RunSmoother(rec.acc, rec.gyr, {}, {}, still_spans, so, false, nullptr);
    if (!probe.steps.empty()) {
      start0 = probe.steps.front();
      start0.bias = res.still_bias.At(probe.t0_ns);
      have_start = true;
    }
  }
  SmootherRun tilt_run =
      RunSmoother(rec.acc, rec.gyr, {}, {}, still_spans, so, false, have_start ? &start0 : nullptr);
  if (tilt_run.steps.size() < 2) {
    res.error = "the recording is shorter than one smoothing step";
    return res;
  }
  // The mean vertical specific force is the gravity the accelerometer sees.
  so.gravity = tilt_run.mean_vertical_specific_force;
  res.gravity = so.gravity;
  rep += Fmt("gravity as the accelerometer reads it: %.3f m/s^2\n", so.gravity);
  std::vector<Vector3d> up = UpVectors(tilt_run, rec.gyr, rec.mag);

  // 2. Magnetometer calibration.
  bool have_cal = false;
  if (cal_rec != nullptr) {
    MagCalResult c = CalibrateMagnetometer(ToMagSamples(cal_rec->mag), o.magcal);
    if (!c.ok) {
      res.error = "calibration recording: " + c.error;
      return res;
    }
    res.cal = c;
    res.cal_source = "calibration recording";
    have_cal = true;
    rep += Fmt("calibration recording: offset %.2f %.2f %.2f uT, radius %.2f uT\n", c.offset[0],
               c.offset[1], c.offset[2], c.radius);
    rep += Fmt("  residual RMS %.2f uT, %.0f of %.0f samples inliers, soft iron ", c.residual_rms,
               static_cast<double>(c.inliers), static_cast<double>(c.inlier.size()));
    rep += c.soft_iron_fitted ? "fitted\n" : "identity\n";
    if (o.refit_offset && !rec.mag.empty()) {
      MagCalResult refit;
      std::string note;
      if (RefitOffset(c, rec.mag, up, &refit, &note)) {
        res.cal = refit;
        res.cal_source = "calibration recording, offset refitted on this recording";
        rep += Fmt("offset refitted here: %.2f %.2f %.2f uT, radius %.2f uT\n", refit.offset[0],
                   refit.offset[1], refit.offset[2], refit.radius);
      } else {
        rep += "offset not refitted: " + note + "\n";
      }
    }
  } else if (!rec.mag.empty()) {
    MagCalResult c = CalibrateMagnetometer(ToMagSamples(rec.mag), o.magcal);
    if (c.ok && c.soft_iron_fitted) {
      res.cal = c;
      res.cal_source = "this recording (hard and soft iron)";
      have_cal = true;
    } else {
      // Too few directions for a soft-iron matrix: the vertical relation
      // pins the offset (identity soft iron).
      MagCalResult ident;
      ident.ok = true;
      ident.soft_iron = ident.correction = {1, 0, 0, 0, 1, 0, 0, 0, 1};
      ident.inlier.assign(rec.mag.size(), true);
      std::string note;
      if (RefitOffset(ident, rec.mag, up, &res.cal, &note)) {
        res.cal_source = "this recording (offset from the field's constant vertical part)";
        have_cal = true;
      } else if (c.ok) {
        res.cal = c;
        res.cal_source = "this recording (sphere)";
        have_cal = true;
      } else {
        rep += "no magnetometer calibration: " + c.error + "; " + note + "\n";
      }
    }
  }
  if (have_cal) {
    const MagCalResult &c = res.cal;
    rep += "magnetometer calibration from " + res.cal_source + "\n";
    rep += Fmt("  offset %.2f %.2f %.2f uT, radius %.2f uT", c.offset[0], c.offset[1], c.offset[2],
               c.radius);
    rep += Fmt(", residual RMS %.2f uT, inliers %.0f of %.0f\n", c.residual_rms,
               static_cast<double>(c.inliers), static_cast<double>(c.inlier.size()));
    rep += Fmt("  soft iron (raw = S field + offset): %.4f %.4f %.4f", c.soft_iron[0],
               c.soft_iron[1], c.soft_iron[2]);
    rep += Fmt(" / %.4f %.4f %.4f", c.soft_iron[3], c.soft_iron[4], c.soft_iron[5]);
    rep += Fmt(" / %.4f %.4f %.4f\n", c.soft_iron[6], c.soft_iron[7], c.soft_iron[8]);
  }

  // 4. Disturbances of the calibrated field.
  std::vector<TimedVec> field(rec.mag.size());
  for (size_t i = 0; i < rec.mag.size(); ++i) {
    std::array<double, 3> f = res.cal.Apply(rec.mag[i].v.x(), rec.mag[i].v.y(), rec.mag[i].v.z());
    field[i] = {rec.mag[i].t_ns, Vector3d(f[0], f[1], f[2])};
  }
  std::vector<bool> usable(rec.mag.size(), false);
  if (have_cal) {
    res.disturbances = DetectDisturbances(field, up, o.disturbance);
    for (size_t i = 0; i < usable.size(); ++i) usable[i] = !res.disturbances.disturbed[i];
    const Disturbances &d = res.disturbances;
    double dist_s = 0;
    for (const auto &s : d.spans) dist_s += static_cast<double>(s.second - s.first) / kNsPerS;
    rep += Fmt("steady field: %.2f uT (sigma %.2f), dip %.2f deg (sigma %.2f)\n",
               d.steady_magnitude_ut, d.magnitude_sigma_ut, d.steady_dip_deg, d.dip_sigma_deg);
    rep += Fmt("disturbed: %.0f of %.0f field samples in %.0f spans (%.1f s)\n",
               static_cast<double>(d.count), static_cast<double>(field.size()),
               static_cast<double>(d.spans.size()), dist_s);
  }

  // 5. Full passes.
  SmootherRun run = RunSmoother(rec.acc, rec.gyr, field, usable, still_spans, so, have_cal,
                                have_start ? &start0 : nullptr);
  SmoothedState s0 = run.steps.front();
  run = RunSmoother(rec.acc, rec.gyr, field, usable, still_spans, so, have_cal, &s0);
  res.heading_updates = run.heading_updates;
  res.smoothed_bias_start = run.steps.front().bias;
  res.smoothed_bias_end = run.steps.back().bias;
  rep += Fmt("smoothed gyroscope bias: start %.5f %.5f %.5f rad/s", res.smoothed_bias_start.x(),
             res.smoothed_bias_start.y(), res.smoothed_bias_start.z());
  rep += Fmt(", end %.5f %.5f %.5f\n", res.smoothed_bias_end.x(), res.smoothed_bias_end.y(),
             res.smoothed_bias_end.z());
  if (!have_cal) rep += "no heading correction: the heading is the gyroscope's alone\n";

  // Output at a fixed rate.
  AttitudeTrack track(run, rec.gyr);
  const int64_t dt = static_cast<int64_t>(std::llround(kNsPerS / o.output_rate_hz));
  const int64_t t_end = run.t0_ns + static_cast<int64_t>(run.steps.size() - 1) * run.step_ns;
  size_t im = 0;
  double worst = 0, sum_sigma = 0;
  for (int64_t t = run.t0_ns; t <= t_end; t += dt) {
    Quaterniond q;
    double ts = 0, hs = 0;
    if (!track.At(t, &q, &ts, &hs)) continue;
    if (q.w() < 0) q.coeffs() *= -1;
    while (im + 1 < rec.mag.size() && rec.mag[im + 1].t_ns <= t) im++;
    ReferenceSample s{t,     q.w(), q.x(),
                      q.y(), q.z(), std::sqrt(ts * ts + hs * hs),
                      ts,    hs,    have_cal ? !usable.empty() && !usable[im] : true};
    if (s.disturbed) s.sigma_deg = std::max(s.sigma_deg, o.disturbed_sigma_deg);
    worst = std::max(worst, s.sigma_deg);
    sum_sigma += s.sigma_deg;
    res.samples.push_back(s);
  }
  rep +=
      Fmt("reference samples: %.0f at %.0f Hz, sigma mean %.2f deg, max %.2f deg\n",
          static_cast<double>(res.samples.size()), o.output_rate_hz,
          res.samples.empty() ? 0.0 : sum_sigma / static_cast<double>(res.samples.size()), worst);
  res.ok = !res.samples.empty();
  if (!res.ok) res.error = "no reference sample";
  return res;
}

}  // namespace qvn_reference
