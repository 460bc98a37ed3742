// Error-state Kalman filter and Rauch-Tung-Striebel smoother (smoother.h).
//
// Why a filter plus smoother rather than one batch least-squares problem:
// the cost is linear in the recording's length with a fixed 9-state
// covariance per step, so an hour of data fits in memory and runs in
// seconds, and the smoothed covariance gives each sample's confidence for
// free; a batch problem over every attitude would need a sparse solver and
// a separate covariance recovery for the same answer on this model.
#include "reference/smoother.h"

#include <algorithm>
#include <cmath>

namespace qvn_reference {
namespace {

using Eigen::Matrix3d;
using Eigen::Quaterniond;
using Eigen::Vector3d;
constexpr int kN = 9;
using Mat9 = Eigen::Matrix<double, kN, kN>;
using Vec9 = Eigen::Matrix<double, kN, 1>;

constexpr double kNsPerS = 1e9;
constexpr double kDegPerRad = 57.29577951308232;
constexpr double kPi = 3.14159265358979323846;
constexpr double kStillBiasSigma = 0.001;  // rad/s, mean rate of a still step
constexpr int64_t kInitialAverageNs = 500000000;

Matrix3d Skew(const Vector3d &v) {
  Matrix3d m;
  m << 0, -v.z(), v.y(), v.z(), 0, -v.x(), -v.y(), v.x(), 0;
  return m;
}

Quaterniond ExpQ(const Vector3d &w) {
  double a = w.norm();
  if (a < 1e-12) return Quaterniond(1, 0.5 * w.x(), 0.5 * w.y(), 0.5 * w.z()).normalized();
  return Quaterniond(Eigen::AngleAxisd(a, w / a));
}

Vector3d LogQ(const Quaterniond &q0) {
  Quaterniond q = q0.w() < 0 ? Quaterniond(-q0.w(), -q0.x(), -q0.y(), -q0.z()) : q0;
  Vector3d v = q.vec();
  double s = v.norm();
  if (s < 1e-12) return 2.0 * v;
  return 2.0 * std::atan2(s, q.w()) * v / s;
}

double WrapPi(double a) {
  while (a > kPi) a -= 2 * kPi;
  while (a <= -kPi) a += 2 * kPi;
  return a;
}

struct Nominal {
  Quaterniond q = Quaterniond::Identity();
  Vector3d b = Vector3d::Zero(), v = Vector3d::Zero();
};

// Index of the last sample at or before t (0 when t precedes them all).
size_t LastAtOrBefore(const std::vector<TimedVec> &s, int64_t t) {
  auto it = std::upper_bound(s.begin(), s.end(), t,
                             [](int64_t x, const TimedVec &e) { return x < e.t_ns; });
  return it == s.begin() ? 0 : static_cast<size_t>(it - s.begin()) - 1;
}

// What one step's samples add up to (frame of the step's start).
struct Preintegrated {
  Matrix3d dr = Matrix3d::Identity();
  Matrix3d j = Matrix3d::Zero();  // sum dR dt
  Vector3d dv = Vector3d::Zero();
  Vector3d mag_sum = Vector3d::Zero();
  int mag_count = 0;
  Vector3d gyro_sum = Vector3d::Zero();
  double gyro_time = 0;
};

Preintegrated Integrate(const std::vector<TimedVec> &acc, const std::vector<TimedVec> &gyr,
                        const std::vector<TimedVec> &mag, const std::vector<bool> &mag_usable,
                        int64_t ta, int64_t tb, const Vector3d &bias) {
  Preintegrated p;
  size_t ig = LastAtOrBefore(gyr, ta), ia = LastAtOrBefore(acc, ta);
  size_t im = LastAtOrBefore(mag, ta);
  if (im < mag.size() && mag[im].t_ns <= ta) im++;
  int64_t cur = ta;
  while (cur < tb) {
    int64_t next = tb;
    if (ig + 1 < gyr.size() && gyr[ig + 1].t_ns > cur) next = std::min(next, gyr[ig + 1].t_ns);
    if (ia + 1 < acc.size() && acc[ia + 1].t_ns > cur) next = std::min(next, acc[ia + 1].t_ns);
    if (im < mag.size() && mag[im].t_ns > cur) next = std::min(next, mag[im].t_ns);
    double dt = static_cast<double>(next - cur) / kNsPerS;
    Vector3d w = gyr.empty() ? Vector3d::Zero() : Vector3d(gyr[ig].v - bias);
    Vector3d a = acc.empty() ? Vector3d::Zero() : acc[ia].v;
    Matrix3d half = p.dr * ExpQ(0.5 * dt * w).toRotationMatrix();
    p.dv += half * a * dt;
    p.j += half * dt;
    p.gyro_sum += w * dt;
    p.gyro_time += dt;
    p.dr = p.dr * ExpQ(dt * w).toRotationMatrix();
    cur = next;
    while (ig + 1 < gyr.size() && gyr[ig + 1].t_ns <= cur) ig++;
    while (ia + 1 < acc.size() && acc[ia + 1].t_ns <= cur) ia++;
    while (im < mag.size() && mag[im].t_ns <= cur) {
      if (mag[im].t_ns > ta && mag_usable[im]) {
        p.mag_sum += p.dr * mag[im].v;
        p.mag_count++;
      }
      im++;
    }
  }
  return p;
}

// First attitude: the mean specific force of the first half second is up;
// the field's horizontal part (when given) is north.
Quaterniond InitialAttitude(const std::vector<TimedVec> &acc, const std::vector<TimedVec> &mag,
                            const std::vector<bool> &mag_usable, int64_t t0, bool use_mag) {
  Vector3d up = Vector3d::Zero(), m = Vector3d::Zero();
  for (const TimedVec &a : acc)
    if (a.t_ns < t0 + kInitialAverageNs) up += a.v;
  for (size_t i = 0; i < mag.size(); ++i)
    if (mag[i].t_ns < t0 + kInitialAverageNs && mag_usable[i]) m += mag[i].v;
  if (up.norm() <= 0) up = Vector3d::UnitZ();
  up.normalize();
  Vector3d north = use_mag ? Vector3d(m - m.dot(up) * up) : Vector3d::Zero();
  if (north.norm() < 1e-6) north = Vector3d::UnitY() - up.y() * up;
  if (north.norm() < 1e-6) north = Vector3d::UnitX() - up.x() * up;
  north.normalize();
  Vector3d east = north.cross(up);
  Matrix3d r;  // rows: world axes in phone coordinates
  r.row(0) = east.transpose();
  r.row(1) = north.transpose();
  r.row(2) = up.transpose();
  return Quaterniond(r).normalized();
}

template <int M>
void Update(const Eigen::Matrix<double, M, 1> &innovation, const Eigen::Matrix<double, M, kN> &h,
            const Eigen::Matrix<double, M, M> &r, Nominal *x, Mat9 *p) {
  Eigen::Matrix<double, M, M> s = h * (*p) * h.transpose() + r;
  Eigen::Matrix<double, kN, M> k = (*p) * h.transpose() * s.inverse();
  Vec9 dx = k * innovation;
  x->q = (ExpQ(dx.head<3>()) * x->q).normalized();
  x->b += dx.segment<3>(3);
  x->v += dx.segment<3>(6);
  Mat9 ikh = Mat9::Identity() - k * h;
  *p = ikh * (*p) * ikh.transpose() + k * r * k.transpose();
}

}  // namespace

SmootherRun RunSmoother(const std::vector<TimedVec> &acc, const std::vector<TimedVec> &gyr,
                        const std::vector<TimedVec> &mag, const std::vector<bool> &mag_usable,
                        const std::vector<std::pair<int64_t, int64_t>> &still_spans,
                        const SmootherOptions &o, bool use_heading, const SmoothedState *start) {
  SmootherRun run;
  if (acc.empty() || gyr.empty()) return run;
  run.t0_ns = std::max(acc.front().t_ns, gyr.front().t_ns);
  const int64_t t_end = std::min(acc.back().t_ns, gyr.back().t_ns);
  run.step_ns = static_cast<int64_t>(std::llround(o.step_s * kNsPerS));
  if (t_end <= run.t0_ns) return run;
  const size_t steps = static_cast<size_t>((t_end - run.t0_ns) / run.step_ns) + 1;
  const double dt = o.step_s;
  const Vector3d g_up(0, 0, o.gravity);
  const int velocity_every = std::max(1, static_cast<int>(std::lround(o.velocity_every_s / dt)));

  std::vector<Nominal> filt(steps), pred(steps);
  std::vector<Mat9> pf(steps), pp(steps), phi(steps);
  Nominal x;
  if (start != nullptr) {
    x.q = start->q, x.b = start->bias, x.v = start->velocity;
  } else {
    x.q = InitialAttitude(acc, mag, mag_usable, run.t0_ns, use_heading);
  }
  Mat9 p = Mat9::Zero();
  const double tilt0 = o.initial_tilt_sigma_deg / kDegPerRad;
  const double head0 = o.initial_heading_sigma_deg / kDegPerRad;
  p.diagonal() << tilt0 * tilt0, tilt0 * tilt0, head0 * head0,
      Vector3d::Constant(o.initial_bias_sigma * o.initial_bias_sigma),
      Vector3d::Constant(o.initial_velocity_sigma * o.initial_velocity_sigma);
  filt[0] = x;
  pred[0] = x;
  pf[0] = p;
  pp[0] = p;
  Mat9 q_noise = Mat9::Zero();
  q_noise.diagonal() << Vector3d::Constant(o.gyro_noise * o.gyro_noise * dt),
      Vector3d::Constant(o.bias_walk * o.bias_walk * dt),
      Vector3d::Constant(o.accel_noise * o.accel_noise * dt);
  double vertical_sum = 0;
  size_t span = 0;
  for (size_t k = 1; k < steps; ++k) {
    const int64_t ta = run.t0_ns + static_cast<int64_t>(k - 1) * run.step_ns;
    const int64_t tb = ta + run.step_ns;
    Preintegrated pi = Integrate(acc, gyr, mag, mag_usable, ta, tb, x.b);
    const Matrix3d r = x.q.toRotationMatrix();
    const Vector3d f_world = r * pi.dv;
    vertical_sum += f_world.z();
    Mat9 f = Mat9::Identity();
    f.block<3, 3>(0, 3) = -r * pi.j;
    f.block<3, 3>(6, 0) = -Skew(f_world);
    x.q = (x.q * Quaterniond(pi.dr)).normalized();
    x.v = x.v + f_world - g_up * dt;
    p = f * p * f.transpose() + q_noise;
    phi[k - 1] = f;
    pred[k] = x;
    pp[k] = p;

    while (span < still_spans.size() && still_spans[span].second < tb) span++;
    const bool still = span < still_spans.size() && still_spans[span].first <= ta &&
                       still_spans[span].second >= tb;
    if (still) {
      Eigen::Matrix<double, 6, kN> h = Eigen::Matrix<double, 6, kN>::Zero();
      h.block<3, 3>(0, 3) = Matrix3d::Identity();
      h.block<3, 3>(3, 6) = Matrix3d::Identity();
      Eigen::Matrix<double, 6, 1> z;
      // The bias that makes the step's mean rate zero: the preintegration
      // already subtracted x.b, so the remaining mean rate is its error.
      z << pi.gyro_sum / std::max(pi.gyro_time, 1e-9), -x.v;
      Eigen::Matrix<double, 6, 6> rr = Eigen::Matrix<double, 6, 6>::Zero();
      rr.diagonal() << Vector3d::Constant(kStillBiasSigma * kStillBiasSigma),
          Vector3d::Constant(o.still_velocity_sigma * o.still_velocity_sigma);
      Update<6>(z, h, rr, &x, &p);
    } else if (k % static_cast<size_t>(velocity_every) == 0) {
      Eigen::Matrix<double, 3, kN> h = Eigen::Matrix<double, 3, kN>::Zero();
      h.block<3, 3>(0, 6) = Matrix3d::Identity();
      Eigen::Matrix3d rr = Eigen::Vector3d(o.velocity_sigma_h * o.velocity_sigma_h,
                                           o.velocity_sigma_h * o.velocity_sigma_h,
                                           o.velocity_sigma_v * o.velocity_sigma_v)
                               .asDiagonal();
      Update<3>(-x.v, h, rr, &x, &p);
    }
    if (o.gravity_sigma > 0 && !still) {
      // Mean specific force of the step, seen from its end: R (dR^T f) = g_up.
      Vector3d fw = x.q.toRotationMatrix() * pi.dr.transpose() * (pi.dv / dt);
      Eigen::Matrix<double, 3, kN> h = Eigen::Matrix<double, 3, kN>::Zero();
      h.block<3, 3>(0, 0) = -Skew(fw);
      Eigen::Matrix3d rr = Eigen::Matrix3d::Identity() * o.gravity_sigma * o.gravity_sigma;
      Update<3>(Vector3d(g_up - fw), h, rr, &x, &p);
    }
    if (use_heading && pi.mag_count > 0) {
      // The step's mean field (frame of the step's start) seen from the end
      // of the step, then in the world with the attitude as updated so far.
      Vector3d hw = x.q.toRotationMatrix() * pi.dr.transpose() * (pi.mag_sum / pi.mag_count);
      double hh = hw.x() * hw.x() + hw.y() * hw.y();
      if (hh > 1e-6 * hw.squaredNorm()) {
        Eigen::Matrix<double, 1, 3> dpsi(hw.y() / hh, -hw.x() / hh, 0);
        Eigen::Matrix<double, 1, kN> h = Eigen::Matrix<double, 1, kN>::Zero();
        h.block<1, 3>(0, 0) = dpsi * (-Skew(hw));
        Eigen::Matrix<double, 1, 1> z(-WrapPi(std::atan2(hw.x(), hw.y())));
        // One look is worth heading_sigma_deg only once per correlation
        // time: spread over the steps in it, each counts that much less.
        double s = o.heading_sigma_deg / kDegPerRad *
                   std::sqrt(std::max(o.heading_correlation_s / dt, 1.0));
        Eigen::Matrix<double, 1, 1> rr(s * s);
        Update<1>(z, h, rr, &x, &p);
        run.heading_updates++;
      }
    }
    filt[k] = x;
    pf[k] = p;
  }
  run.mean_vertical_specific_force = vertical_sum / (static_cast<double>(steps - 1) * dt);

  // Backwards: e_k = C_k (x_{k+1|N} - x_{k+1|k}), C_k = P_k|k F_k^T P_{k+1|k}^-1.
  run.steps.resize(steps);
  Nominal sm = filt[steps - 1];
  Mat9 ps = pf[steps - 1];
  auto emit = [&](size_t k, const Nominal &n, const Mat9 &cov) {
    SmoothedState &s = run.steps[k];
    s.t_ns = run.t0_ns + static_cast<int64_t>(k) * run.step_ns;
    s.q = n.q;
    s.bias = n.b;
    s.velocity = n.v;
    s.tilt_sigma_deg = std::sqrt(std::max(cov(0, 0) + cov(1, 1), 0.0)) * kDegPerRad;
    s.heading_sigma_deg = std::sqrt(std::max(cov(2, 2), 0.0)) * kDegPerRad;
  };
  emit(steps - 1, sm, ps);
  for (size_t k = steps - 1; k-- > 0;) {
    Vec9 e;
    e.head<3>() = LogQ(sm.q * pred[k + 1].q.conjugate());
    e.segment<3>(3) = sm.b - pred[k + 1].b;
    e.segment<3>(6) = sm.v - pred[k + 1].v;

    Mat9 c = pf[k] * phi[k].transpose() * pp[k + 1].ldlt().solve(Mat9::Identity());
    Vec9 d = c * e;
    Nominal n = filt[k];
    n.q = (ExpQ(d.head<3>()) * n.q).normalized();
    n.b += d.segment<3>(3);
    n.v += d.segment<3>(6);

    ps = pf[k] + c * (ps - pp[k + 1]) * c.transpose();
    sm = n;
    emit(k, sm, ps);
  }
  return run;
}

AttitudeTrack::AttitudeTrack(const SmootherRun &run, const std::vector<TimedVec> &gyr)
    : run_(run), gyr_(gyr) {}

bool AttitudeTrack::At(int64_t t_ns, Quaterniond *q, double *tilt_sigma,
                       double *heading_sigma) const {
  if (run_.steps.empty() || t_ns < run_.t0_ns) return false;
  const size_t k = static_cast<size_t>((t_ns - run_.t0_ns) / run_.step_ns);
  if (k >= run_.steps.size()) return false;
  const SmoothedState &a = run_.steps[k];
  static const std::vector<TimedVec> kNone;
  static const std::vector<bool> kNoFlags;
  Quaterniond qa =
      a.q * Quaterniond(Integrate(kNone, gyr_, kNone, kNoFlags, a.t_ns, t_ns, a.bias).dr);
  double s = 0;
  Quaterniond out = qa;
  double ts = a.tilt_sigma_deg, hs = a.heading_sigma_deg;
  if (k + 1 < run_.steps.size() && t_ns > a.t_ns) {
    const SmoothedState &b = run_.steps[k + 1];
    // Carried back from the next state: dR(t -> t_b)^-1.
    Matrix3d back = Integrate(kNone, gyr_, kNone, kNoFlags, t_ns, b.t_ns, b.bias).dr;
    Quaterniond qb = b.q * Quaterniond(back.transpose());
    s = static_cast<double>(t_ns - a.t_ns) / static_cast<double>(run_.step_ns);
    out = qa.slerp(s, qb);
    ts += s * (b.tilt_sigma_deg - ts);
    hs += s * (b.heading_sigma_deg - hs);
  }
  *q = out.normalized();
  *tilt_sigma = ts;
  *heading_sigma = hs;
  return true;
}

}  // namespace qvn_reference
