// Batch hard- and soft-iron fit (model and method: mag_calibration.h).
//
// Numerics: samples are centred on their mean and scaled by their RMS
// distance from it before fitting, so a 400 uT offset and a 45 uT radius
// give a well-conditioned problem. The unknowns of the refinement are the
// symmetric matrix W (6 values, or 1 for the sphere: W = s I) and the centre
// c, with residual r_i = |W (p_i - c)| - 1 (dimensionless; times the radius
// it is in uT). Levenberg-Marquardt steps on Cauchy-weighted normal
// equations, weights renewed at every step.
#include "reference/mag_calibration.h"

#include <Eigen/Dense>
#include <algorithm>
#include <cmath>

namespace qvn_reference {
namespace {

using Eigen::Matrix3d;
using Eigen::Vector3d;

constexpr size_t kMinSamples = 20;
constexpr int kMaxSteps = 60;
constexpr int kOutlierRounds = 3;
constexpr double kMadToSigma = 1.4826;
constexpr double kCauchyWidth = 2.385;  // 95% efficiency under Gaussian noise
constexpr double kStepTolerance = 1e-10;

struct Model {
  Matrix3d w = Matrix3d::Identity();  // symmetric, scaled units
  Vector3d c = Vector3d::Zero();
};

double Median(std::vector<double> v) {
  if (v.empty()) return 0;
  size_t k = v.size() / 2;
  std::nth_element(v.begin(), v.begin() + static_cast<std::ptrdiff_t>(k), v.end());
  return v[k];
}

// Linear sphere fit |p|^2 = 2 c.p + d; radius^2 = d + |c|^2.
bool SphereStart(const std::vector<Vector3d> &p, const std::vector<bool> &use, Model *m) {
  Eigen::Matrix4d a = Eigen::Matrix4d::Zero();
  Eigen::Vector4d b = Eigen::Vector4d::Zero();
  for (size_t i = 0; i < p.size(); ++i) {
    if (!use[i]) continue;
    Eigen::Vector4d row(2 * p[i].x(), 2 * p[i].y(), 2 * p[i].z(), 1.0);
    a += row * row.transpose();
    b += row * p[i].squaredNorm();
  }
  Eigen::Vector4d s = a.ldlt().solve(b);
  Vector3d c = s.head<3>();
  double r2 = s[3] + c.squaredNorm();
  if (!s.allFinite() || r2 <= 0) return false;
  m->c = c;
  m->w = Matrix3d::Identity() / std::sqrt(r2);
  return true;
}

// Algebraic ellipsoid p^T M p + 2 n.p = 1 (9 unknowns), turned into
// |W (p - c)| = 1 with W the symmetric square root of M / k.
bool EllipsoidStart(const std::vector<Vector3d> &p, const std::vector<bool> &use, Model *m) {
  Eigen::Matrix<double, 9, 9> a = Eigen::Matrix<double, 9, 9>::Zero();
  Eigen::Matrix<double, 9, 1> b = Eigen::Matrix<double, 9, 1>::Zero();
  for (size_t i = 0; i < p.size(); ++i) {
    if (!use[i]) continue;
    const Vector3d &q = p[i];
    Eigen::Matrix<double, 9, 1> row;
    row << q.x() * q.x(), q.y() * q.y(), q.z() * q.z(), 2 * q.x() * q.y(), 2 * q.x() * q.z(),
        2 * q.y() * q.z(), 2 * q.x(), 2 * q.y(), 2 * q.z();
    a += row * row.transpose();
    b += row;
  }
  Eigen::Matrix<double, 9, 1> s = a.ldlt().solve(b);
  if (!s.allFinite()) return false;
  Matrix3d mm;
  mm << s[0], s[3], s[4], s[3], s[1], s[5], s[4], s[5], s[2];
  Vector3d n(s[6], s[7], s[8]);
  Eigen::SelfAdjointEigenSolver<Matrix3d> eig(mm);
  if (eig.eigenvalues().minCoeff() <= 0) return false;
  Vector3d c = -mm.inverse() * n;
  double k = 1.0 + c.dot(mm * c);
  if (k <= 0) return false;
  Vector3d root = (eig.eigenvalues() / k).cwiseSqrt();
  m->w = eig.eigenvectors() * root.asDiagonal() * eig.eigenvectors().transpose();
  m->c = c;
  return true;
}

void Residuals(const Model &m, const std::vector<Vector3d> &p, std::vector<double> *r) {
  r->resize(p.size());
  for (size_t i = 0; i < p.size(); ++i) (*r)[i] = (m.w * (p[i] - m.c)).norm() - 1.0;
}

// Robust scale of the residuals of the used samples (dimensionless).
double RobustSigma(const std::vector<double> &r, const std::vector<bool> &use, double floor) {
  std::vector<double> a;
  for (size_t i = 0; i < r.size(); ++i)
    if (use[i]) a.push_back(std::fabs(r[i]));
  return std::max(kMadToSigma * Median(a), floor);
}

// Parameter vector: soft iron fitted: w00 w11 w22 w01 w02 w12 c0 c1 c2;
// sphere: s c0 c1 c2.
Eigen::VectorXd Pack(const Model &m, bool soft) {
  Eigen::VectorXd x(soft ? 9 : 4);
  if (soft) {
    x << m.w(0, 0), m.w(1, 1), m.w(2, 2), m.w(0, 1), m.w(0, 2), m.w(1, 2), m.c.x(), m.c.y(),
        m.c.z();
  } else {
    x << m.w.trace() / 3.0, m.c.x(), m.c.y(), m.c.z();
  }
  return x;
}

Model Unpack(const Eigen::VectorXd &x, bool soft) {
  Model m;
  if (soft) {
    m.w << x[0], x[3], x[4], x[3], x[1], x[5], x[4], x[5], x[2];
    m.c = x.tail<3>();
  } else {
    m.w = Matrix3d::Identity() * x[0];
    m.c = x.tail<3>();
  }
  return m;
}

// Field radius in scaled units and its prior (value, sigma; sigma 0 = none).
struct RadiusPrior {
  double value = 0, sigma = 0;
};

double ScaledRadius(const Model &m) { return 1.0 / std::cbrt(m.w.determinant()); }

double WeightedCost(const Model &m, const std::vector<Vector3d> &p, const std::vector<bool> &use,
                    double width, const RadiusPrior &prior) {
  double cost = 0;
  if (prior.sigma > 0) {
    double e = (ScaledRadius(m) - prior.value) / prior.sigma;
    cost += e * e;
  }
  for (size_t i = 0; i < p.size(); ++i) {
    if (!use[i]) continue;
    double r = ((m.w * (p[i] - m.c)).norm() - 1.0) / width;
    cost += std::log1p(r * r);
  }
  return cost;
}

// Levenberg-Marquardt on the Cauchy cost of the used samples.
int Refine(const std::vector<Vector3d> &p, const std::vector<bool> &use, bool soft, double width,
           const RadiusPrior &prior, Model *m, Eigen::MatrixXd *normal = nullptr) {
  const int n = soft ? 9 : 4;
  double lambda = 1e-3;
  double cost = WeightedCost(*m, p, use, width, prior);
  int step = 0;
  for (; step < kMaxSteps; ++step) {
    Eigen::MatrixXd jtj = Eigen::MatrixXd::Zero(n, n);
    Eigen::VectorXd jtr = Eigen::VectorXd::Zero(n);
    Eigen::VectorXd row(n);
    for (size_t i = 0; i < p.size(); ++i) {
      if (!use[i]) continue;
      Vector3d d = p[i] - m->c;
      Vector3d u = m->w * d;
      double len = u.norm();
      if (len <= 0) continue;
      Vector3d g = u / len;
      double r = len - 1.0;
      double wt = 1.0 / (1.0 + (r / width) * (r / width)) / (width * width);
      if (soft) {
        row << g.x() * d.x(), g.y() * d.y(), g.z() * d.z(), g.x() * d.y() + g.y() * d.x(),
            g.x() * d.z() + g.z() * d.x(), g.y() * d.z() + g.z() * d.y(), 0, 0, 0;
      } else {
        row << g.dot(d), 0, 0, 0;
      }
      row.tail<3>() = -(m->w * g);
      jtj.noalias() += wt * row * row.transpose();
      jtr.noalias() += wt * r * row;
    }
    if (prior.sigma > 0) {
      // radius = det(W)^(-1/3): d radius = -radius / 3 * tr(W^-1 dW).
      double radius = ScaledRadius(*m);
      Matrix3d wi = m->w.inverse();
      Eigen::VectorXd jp = Eigen::VectorXd::Zero(n);
      if (soft) {
        jp.head<6>() << wi(0, 0), wi(1, 1), wi(2, 2), 2 * wi(0, 1), 2 * wi(0, 2), 2 * wi(1, 2);
      } else {
        jp[0] = 3.0 / m->w(0, 0);
      }
      jp *= -radius / 3.0 / prior.sigma;
      double e = (radius - prior.value) / prior.sigma;
      jtj.noalias() += jp * jp.transpose();
      jtr.noalias() += e * jp;
    }
    if (normal != nullptr) *normal = jtj;
    Eigen::VectorXd x = Pack(*m, soft);
    bool accepted = false;
    for (int tries = 0; tries < 10 && !accepted; ++tries) {
      Eigen::MatrixXd a = jtj;
      a.diagonal() += lambda * jtj.diagonal().cwiseMax(1e-12);
      Eigen::VectorXd dx = a.ldlt().solve(-jtr);
      Model trial = Unpack(x + dx, soft);
      double c = WeightedCost(trial, p, use, width, prior);
      if (std::isfinite(c) && c <= cost) {
        accepted = true;
        *m = trial;
        double gain = cost - c;
        cost = c;
        lambda = std::max(lambda * 0.3, 1e-9);
        if (dx.norm() < kStepTolerance || gain < 1e-12 * (1.0 + cost)) return step + 1;
      } else {
        lambda *= 10;
      }
    }
    if (!accepted) break;
  }
  return step;
}

}  // namespace

std::array<double, 3> MagCalResult::Apply(double x, double y, double z) const {
  const double d[3] = {x - offset[0], y - offset[1], z - offset[2]};
  std::array<double, 3> out{};
  for (int r = 0; r < 3; ++r)
    out[r] = correction[3 * r] * d[0] + correction[3 * r + 1] * d[1] + correction[3 * r + 2] * d[2];
  return out;
}

MagCalResult CalibrateMagnetometer(const std::vector<MagSample> &samples,
                                   const MagCalOptions &options) {
  MagCalResult res;
  const size_t n = samples.size();
  res.inlier.assign(n, false);
  std::vector<bool> finite(n, false);
  Vector3d mean = Vector3d::Zero();
  size_t count = 0;
  for (size_t i = 0; i < n; ++i) {
    const MagSample &s = samples[i];
    finite[i] = std::isfinite(s.x) && std::isfinite(s.y) && std::isfinite(s.z);
    if (finite[i]) mean += Vector3d(s.x, s.y, s.z), count++;
  }
  if (count < kMinSamples) {
    res.error = "too few finite magnetometer samples (" + std::to_string(count) + ", need " +
                std::to_string(kMinSamples) + ")";
    return res;
  }
  mean /= static_cast<double>(count);
  double scale = 0;
  std::vector<Vector3d> p(n, Vector3d::Zero());
  for (size_t i = 0; i < n; ++i) {
    if (!finite[i]) continue;
    p[i] = Vector3d(samples[i].x, samples[i].y, samples[i].z) - mean;
    scale += p[i].squaredNorm();
  }
  scale = std::sqrt(scale / static_cast<double>(count));
  Matrix3d cov = Matrix3d::Zero();
  for (size_t i = 0; i < n; ++i)
    if (finite[i]) cov += p[i] * p[i].transpose();
  Vector3d spread =
      (Eigen::SelfAdjointEigenSolver<Matrix3d>(cov / static_cast<double>(count)).eigenvalues())
          .cwiseMax(0.0)
          .cwiseSqrt();
  for (int k = 0; k < 3; ++k) res.coverage_ut[static_cast<size_t>(k)] = spread[k];
  if (!(spread[1] >= options.min_coverage_ut)) {
    res.error = "the magnetometer samples sweep too few directions (spread " +
                std::to_string(spread[1]) + " uT along the second axis, need " +
                std::to_string(options.min_coverage_ut) + ")";
    return res;
  }
  for (Vector3d &q : p) q /= scale;

  Model sphere;
  if (!SphereStart(p, finite, &sphere)) {
    res.error = "the samples do not lie near any sphere";
    return res;
  }
  // An ellipsoid fitted to a ring or a cap is arbitrary where no sample is.
  bool soft = options.soft_iron == 1;
  if (options.soft_iron == -1) soft = spread[0] >= options.min_soft_iron_coverage_ratio * spread[2];
  Model m = sphere;
  if (soft && !EllipsoidStart(p, finite, &m)) m = sphere;

  // Residual floor in scaled units: min_outlier_ut over the radius.
  RadiusPrior prior;
  if (options.prior_radius_sigma_ut > 0) {
    prior.value = options.prior_radius_ut / scale;
    prior.sigma = options.prior_radius_sigma_ut / scale;
  }
  std::vector<bool> use = finite;
  std::vector<double> r;
  Eigen::MatrixXd normal;
  double sigma = 0;
  for (int round = 0; round < kOutlierRounds; ++round) {
    Residuals(m, p, &r);
    double radius_scaled = ScaledRadius(m);
    double floor = 0.1 * options.min_outlier_ut / (radius_scaled * scale);
    sigma = RobustSigma(r, use, floor);
    res.iterations += Refine(p, use, soft, kCauchyWidth * sigma, prior, &m, &normal);
    Residuals(m, p, &r);
    sigma = RobustSigma(r, use, floor);
    radius_scaled = ScaledRadius(m);
    double limit =
        std::max(options.outlier_sigmas * sigma, options.min_outlier_ut / (radius_scaled * scale));
    // Outliers, then every sample within the pad of one.
    std::vector<bool> next = finite;
    const int64_t pad = static_cast<int64_t>(options.disturbed_pad_s * 1e9);
    std::vector<int64_t> bad_times;
    for (size_t i = 0; i < n; ++i)
      if (finite[i] && std::fabs(r[i]) > limit) bad_times.push_back(samples[i].t_ns);
    std::sort(bad_times.begin(), bad_times.end());
    for (size_t i = 0; i < n; ++i) {
      if (!next[i] || bad_times.empty()) continue;
      auto it = std::lower_bound(bad_times.begin(), bad_times.end(), samples[i].t_ns - pad);
      if (it != bad_times.end() && *it <= samples[i].t_ns + pad) next[i] = false;
    }
    size_t kept = static_cast<size_t>(std::count(next.begin(), next.end(), true));
    if (kept < kMinSamples) break;  // keep the previous, larger inlier set
    bool same = next == use;
    use = next;
    if (same && round > 0) break;
  }
  if (!m.w.allFinite() || !m.c.allFinite() || !(m.w.determinant() > 0)) {
    res.error = "the fit did not converge";
    return res;
  }

  // Back to raw units: raw - offset = scale (p - c), field = B W_raw (raw - offset).
  Matrix3d w_raw = m.w / scale;
  double radius = 1.0 / std::cbrt(w_raw.determinant());
  Matrix3d corr = radius * w_raw;
  Matrix3d soft_iron = corr.inverse();
  Vector3d offset = mean + scale * m.c;
  for (int k = 0; k < 3; ++k) res.offset[static_cast<size_t>(k)] = offset[k];
  for (int a = 0; a < 3; ++a)
    for (int b = 0; b < 3; ++b) {
      res.correction[static_cast<size_t>(3 * a + b)] = corr(a, b);
      res.soft_iron[static_cast<size_t>(3 * a + b)] = soft_iron(a, b);
    }
  res.radius = radius;
  res.soft_iron_fitted = soft;
  if (!(radius >= options.min_radius_ut && radius <= options.max_radius_ut)) {
    res.error = "fitted field radius " + std::to_string(radius) +
                " uT is no geomagnetic field: the samples cover too few directions";
    return res;
  }
  // Offset spread from the Gauss-Newton curvature. The weights divide by the
  // Cauchy width, kCauchyWidth robust sigmas, hence the correction. Samples
  // are treated as independent, so this is a lower bound.
  if (normal.rows() > 0) {
    Eigen::MatrixXd pcov = normal.inverse() / (kCauchyWidth * kCauchyWidth);
    const int k0 = soft ? 6 : 1;
    for (int k = 0; k < 3; ++k)
      res.offset_sigma[static_cast<size_t>(k)] =
          scale * std::sqrt(std::max(pcov(k0 + k, k0 + k), 0.0));
  }
  Residuals(m, p, &r);
  std::vector<double> abs_ut;
  double sq = 0;
  for (size_t i = 0; i < n; ++i) {
    res.inlier[i] = use[i];
    if (!use[i]) continue;
    double e = r[i] * radius;  // |W(p-c)| - 1 scales with the radius
    sq += e * e;
    abs_ut.push_back(std::fabs(e));
  }
  res.inliers = abs_ut.size();
  res.residual_rms = std::sqrt(sq / static_cast<double>(abs_ut.size()));
  std::sort(abs_ut.begin(), abs_ut.end());
  res.residual_p95 = abs_ut[std::min(abs_ut.size() - 1, (abs_ut.size() * 95) / 100)];
  res.ok = true;
  return res;
}

}  // namespace qvn_reference
