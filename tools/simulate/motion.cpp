// Motion segments -> orientation and body rate over time.
//
// Each segment is a rotation r(tau) with r(0) = identity, applied on top of
// the orientation q0 in which the segment starts, so the whole path is
// continuous. Rates come from a central difference of the orientation:
// w_body = 2 * vec(q(t-h)^-1 * q(t+h)) / (2h), exact to O(h^2).
#include "simulate/motion.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "core/event_csv.h"
#include "simulate/walk.h"

namespace qvn_tools {
namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kFigure8DefaultPeriodS = 6.0;
constexpr double kFigure8PitchAmpRad = 1.75;  // about 100 degrees
constexpr double kFigure8RollAmpRad = 2.0;    // about 115 degrees: the screen turns down
constexpr double kTableDefaultRateDegS = 45.0;
constexpr double kTablePauseS = 1.0;
constexpr double kRateStepS = 1e-4;
constexpr double kAccelStepS = 2e-3;
constexpr double kWalkDefaultTurnEveryS = 8.0;

const V3 kX{1, 0, 0}, kY{0, 1, 0}, kZ{0, 0, 1};

// 0 -> 0, 1 -> 1 with zero slope at both ends.
double SmoothStep(double s) {
  s = s < 0 ? 0 : (s > 1 ? 1 : s);
  return s * s * (3 - 2 * s);
}

// Heading-only orientation with the same azimuth as q (phone flat).
Quat Flattened(Quat q) {
  V3 y = Rotate(q, kY);
  double yaw = std::atan2(-y.x, y.y);  // rotation about up that takes north to y
  if (std::hypot(y.x, y.y) < 1e-9) yaw = 0;
  return AxisAngle(kZ, yaw);
}

// Angle turned after tau seconds of 90-degree turns with pauses.
double TableAngle(double tau, double rate_deg_s) {
  double turn_s = 90.0 / rate_deg_s;
  double cycle = turn_s + kTablePauseS;
  double done = std::floor(tau / cycle);
  double in = tau - done * cycle;
  double deg = done * 90.0 + (in < turn_s ? in * rate_deg_s : 90.0);
  return deg / 180.0 * kPi;
}

}  // namespace

bool ParseMotion(const std::string &text, std::vector<Segment> *out, std::string *error) {
  out->clear();
  size_t start = 0;
  while (start <= text.size()) {
    size_t comma = text.find(',', start);
    std::string seg =
        text.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
    std::vector<std::string> parts;
    size_t p = 0;
    while (true) {
      size_t colon = seg.find(':', p);
      parts.push_back(seg.substr(p, colon == std::string::npos ? std::string::npos : colon - p));
      if (colon == std::string::npos) break;
      p = colon + 1;
    }
    Segment s{Segment::kStill, 0, 0};
    bool ok = parts.size() >= 2 && parts.size() <= 3 && ParseDouble(parts[1], &s.duration_s) &&
              s.duration_s > 0 && std::isfinite(s.duration_s);
    if (ok && parts[0] == "still") {
      s.kind = Segment::kStill;
      ok = parts.size() == 2;
    } else if (ok && parts[0] == "figure8") {
      s.kind = Segment::kFigure8;
      s.param = kFigure8DefaultPeriodS;
      ok = parts.size() == 2 || (ParseDouble(parts[2], &s.param) && s.param > 0);
    } else if (ok && parts[0] == "level") {
      s.kind = Segment::kLevel;
      ok = parts.size() == 2;
    } else if (ok && parts[0] == "table") {
      s.kind = Segment::kTable;
      s.param = kTableDefaultRateDegS;
      ok = parts.size() == 2 || (ParseDouble(parts[2], &s.param) && s.param > 0);
    } else if (ok && (parts[0] == "walk" || parts[0] == "swing")) {
      s.kind = parts[0] == "walk" ? Segment::kWalk : Segment::kSwing;
      s.param = kWalkDefaultTurnEveryS;
      ok = parts.size() == 2 || (ParseDouble(parts[2], &s.param) && s.param > 0);
    } else {
      ok = false;
    }
    if (!ok) {
      *error = "bad motion segment '" + seg +
               "' (expected still:S, figure8:S[:PERIOD], level:S, table:S[:DEG_PER_S], "
               "walk:S[:TURN_EVERY_S] or swing:S[:TURN_EVERY_S])";
      out->clear();
      return false;
    }
    out->push_back(s);
    if (comma == std::string::npos) break;
    start = comma + 1;
  }
  return !out->empty();
}

Motion::Motion(std::vector<Segment> segments) : segments_(std::move(segments)) {
  Quat q{1, 0, 0, 0};
  for (size_t k = 0; k < segments_.size(); ++k) {
    start_.push_back(total_);
    q0_.push_back(q);
    q = Within(k, segments_[k].duration_s);
    total_ += segments_[k].duration_s;
  }
}

Quat Motion::Within(size_t k, double tau) const {
  const Segment &s = segments_[k];
  const Quat &q0 = q0_[k];
  switch (s.kind) {
    case Segment::kStill:
      return q0;
    case Segment::kFigure8: {
      double w = 2 * kPi / s.param;
      double yaw = w * tau / 1.5;
      double pitch = kFigure8PitchAmpRad * std::sin(w * tau);
      double roll = kFigure8RollAmpRad * std::sin(2 * w * tau);
      // World-frame sweep: turn about up, tilt about east and north.
      Quat r = Mul(AxisAngle(kZ, yaw), Mul(AxisAngle(kX, pitch), AxisAngle(kY, roll)));
      return Normalized(Mul(r, q0));
    }
    case Segment::kLevel:
      return Nlerp(q0, Flattened(q0), SmoothStep(tau / s.duration_s));
    case Segment::kTable:
      return Normalized(Mul(AxisAngle(kZ, TableAngle(tau, s.param)), q0));
    case Segment::kWalk:
    case Segment::kSwing:
      return WalkAttitude(s.kind == Segment::kWalk ? Carry::kInFront : Carry::kSwinging, q0, tau,
                          s.param);
  }
  return q0;
}

V3 Motion::Position(double t) const {
  if (segments_.empty() || t <= 0) return {0, 0, 0};
  size_t k = 0;
  while (k + 1 < segments_.size() && t >= start_[k + 1]) ++k;
  const Segment &s = segments_[k];
  double tau = std::min(t - start_[k], s.duration_s);
  if (s.kind != Segment::kWalk && s.kind != Segment::kSwing) return {0, 0, 0};
  return WalkPosition(s.kind == Segment::kWalk ? Carry::kInFront : Carry::kSwinging, q0_[k], tau,
                      s.duration_s, s.param);
}

V3 Motion::Acceleration(double t) const {
  V3 d = Position(t + kAccelStepS) - 2.0 * Position(t) + Position(t - kAccelStepS);
  return (1.0 / (kAccelStepS * kAccelStepS)) * d;
}

Quat Motion::At(double t) const {
  if (segments_.empty()) return {1, 0, 0, 0};
  if (t <= 0) return q0_.front();
  size_t k = 0;
  while (k + 1 < segments_.size() && t >= start_[k + 1]) ++k;
  double tau = t - start_[k];
  if (tau > segments_[k].duration_s) tau = segments_[k].duration_s;
  return Within(k, tau);
}

V3 Motion::BodyRate(double t) const {
  Quat d = Mul(Conj(At(t - kRateStepS)), At(t + kRateStepS));
  double sign = d.w < 0 ? -1.0 : 1.0;
  double s = sign / kRateStepS;  // 2 * vec / (2h)
  return {d.x * s, d.y * s, d.z * s};
}

}  // namespace qvn_tools
