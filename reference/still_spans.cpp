// Still spans and the gyroscope bias with its drift (still_spans.h).
#include "reference/still_spans.h"

#include <algorithm>
#include <cmath>

namespace qvn_reference {
namespace {

constexpr double kNsPerS = 1e9;

struct Moments {
  Eigen::Vector3d sum = Eigen::Vector3d::Zero(), sq = Eigen::Vector3d::Zero();
  double n = 0;
  void Add(const Eigen::Vector3d &v) {
    sum += v;
    sq += v.cwiseProduct(v);
    n += 1;
  }
  Eigen::Vector3d Mean() const { return sum / n; }
  Eigen::Vector3d Sd() const {
    return (sq / n - Mean().cwiseProduct(Mean())).cwiseMax(0.0).cwiseSqrt();
  }
};

struct Block {
  bool still = false;
  Moments gyro, acc, mag;
};

}  // namespace

std::vector<StillSpan> FindStillSpans(const std::vector<TimedVec> &acc,
                                      const std::vector<TimedVec> &gyr,
                                      const std::vector<TimedVec> &mag, const StillOptions &o) {
  std::vector<StillSpan> out;
  if (acc.empty() || gyr.empty()) return out;
  const int64_t t0 = std::min(acc.front().t_ns, gyr.front().t_ns);
  const int64_t t1 = std::max(acc.back().t_ns, gyr.back().t_ns);
  const int64_t block = static_cast<int64_t>(o.block_s * kNsPerS);
  const size_t n = static_cast<size_t>((t1 - t0) / block) + 1;
  std::vector<Block> blocks(n);
  std::vector<Moments> acc_norm(n);
  for (const TimedVec &g : gyr) blocks[static_cast<size_t>((g.t_ns - t0) / block)].gyro.Add(g.v);
  for (const TimedVec &a : acc) {
    size_t k = static_cast<size_t>((a.t_ns - t0) / block);
    blocks[k].acc.Add(a.v);
    acc_norm[k].Add(Eigen::Vector3d(a.v.norm(), 0, 0));
  }
  for (const TimedVec &m : mag) {
    if (m.t_ns < t0 || m.t_ns > t1) continue;
    blocks[static_cast<size_t>((m.t_ns - t0) / block)].mag.Add(m.v);
  }
  // Same field as the run's first block (blocks without a field sample do
  // not break a run).
  auto same_field = [&](size_t first, size_t k) {
    if (blocks[first].mag.n == 0 || blocks[k].mag.n == 0) return true;
    return (blocks[k].mag.Mean() - blocks[first].mag.Mean()).cwiseAbs().maxCoeff() <=
           o.mag_tolerance_ut;
  };
  for (size_t k = 0; k < n; ++k) {
    Block &b = blocks[k];
    b.still = b.gyro.n >= 3 && b.acc.n >= 3 && b.gyro.Sd().maxCoeff() < o.gyro_sd &&
              acc_norm[k].Sd().x() < o.acc_sd;
  }
  const size_t min_blocks = static_cast<size_t>(std::ceil(o.min_span_s / o.block_s)) + 2;
  for (size_t k = 0; k < n;) {
    if (!blocks[k].still) {
      ++k;
      continue;
    }
    size_t e = k;
    while (e < n && blocks[e].still && same_field(k, e)) ++e;
    if (e - k >= min_blocks) {
      StillSpan s;
      Moments g, a;
      for (size_t j = k + 1; j + 1 < e; ++j) {
        g.sum += blocks[j].gyro.sum, g.n += blocks[j].gyro.n;
        a.sum += blocks[j].acc.sum, a.n += blocks[j].acc.n;
      }
      s.from_ns = t0 + static_cast<int64_t>(k + 1) * block;
      s.to_ns = t0 + static_cast<int64_t>(e - 1) * block;
      s.mean_rate = g.Mean();
      s.mean_acc = a.Mean();
      out.push_back(s);
    }
    k = e;
  }
  return out;
}

GyroBias BiasFromStillSpans(const std::vector<StillSpan> &spans, const StillOptions &o) {
  GyroBias b;
  if (spans.empty()) return b;
  b.known = true;
  double wsum = 0, tmid = 0;
  Eigen::Vector3d mean = Eigen::Vector3d::Zero();
  for (const StillSpan &s : spans) {
    double w = static_cast<double>(s.to_ns - s.from_ns);
    double t = 0.5 * static_cast<double>(s.from_ns + s.to_ns);
    wsum += w;
    tmid += w * t;
    mean += w * s.mean_rate;
    b.gravity += w * s.mean_acc.norm();
  }
  tmid /= wsum;
  b.bias = mean / wsum;
  b.gravity /= wsum;
  b.t_mid_ns = static_cast<int64_t>(tmid);
  // Weighted least-squares slope about the weighted mean time.
  double stt = 0;
  Eigen::Vector3d sty = Eigen::Vector3d::Zero();
  for (const StillSpan &s : spans) {
    double w = static_cast<double>(s.to_ns - s.from_ns);
    double dt = (0.5 * static_cast<double>(s.from_ns + s.to_ns) - tmid) / kNsPerS;
    stt += w * dt * dt;
    sty += w * dt * (s.mean_rate - b.bias);
  }
  const int64_t baseline = spans.back().to_ns - spans.front().from_ns;
  if (spans.size() >= 2 && static_cast<double>(baseline) / kNsPerS >= o.min_drift_baseline_s &&
      stt > 0) {
    b.drift_known = true;
    b.drift = sty / stt;
  }
  return b;
}

}  // namespace qvn_reference
