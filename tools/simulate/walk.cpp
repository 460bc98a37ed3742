// Walking gaits of a phone: attitude and position over time (see walk.h).
#include "simulate/walk.h"

#include <cmath>

namespace qvn_tools {
namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kStepHz = 1.8;           // steps per second
constexpr double kTurnS = 2.0;            // duration of one turn
constexpr double kBlendS = 1.5;           // attitude blend and position fade
constexpr double kBounceM = 0.025;        // vertical bounce amplitude, once a step
constexpr double kSwayM = 0.03;           // lateral sway amplitude, once a stride
constexpr double kArmM = 0.6;             // shoulder to phone
constexpr double kArmSwingRad = 0.3;      // about 17 degrees either way
constexpr double kReadingTiltRad = 0.52;  // top edge raised 30 degrees when held in front
constexpr double kWobbleXRad = 0.07, kWobbleYRad = 0.05;
// Hanging in the hand: top edge down, screen turned to the side, as in a
// recorded swinging walk (gravity seen from the phone about (0.2, -0.87, 0.42)).
constexpr double kHangPitchRad = -1.12, kHangRollRad = -0.45;
constexpr double kTurnPatternDeg[] = {90, 90, -90, 180, -90, 45, -135};
constexpr int kTurnPatternSize = sizeof kTurnPatternDeg / sizeof kTurnPatternDeg[0];

const V3 kX{1, 0, 0}, kY{0, 1, 0}, kZ{0, 0, 1};

double SmoothStep(double s) {
  s = s < 0 ? 0 : (s > 1 ? 1 : s);
  return s * s * (3 - 2 * s);
}

// Heading-only part of q (the rotation about up that takes north to its y axis).
Quat HeadingOf(Quat q) {
  V3 y = Rotate(q, kY);
  return std::hypot(y.x, y.y) < 1e-9 ? Quat{1, 0, 0, 0} : AxisAngle(kZ, std::atan2(-y.x, y.y));
}

// Turned angle (rad, counter-clockwise) after tau seconds.
double TurnAngle(double tau, double turn_every_s) {
  if (turn_every_s <= kTurnS) turn_every_s = kTurnS + 1;
  double angle = 0;
  int k = 0;
  for (double start = turn_every_s; start < tau; start += turn_every_s, ++k) {
    angle +=
        kTurnPatternDeg[k % kTurnPatternSize] / 180.0 * kPi * SmoothStep((tau - start) / kTurnS);
  }
  return angle;
}

double StridePhase(double tau) { return kPi * kStepHz * tau; }  // one stride = two steps

}  // namespace

Quat WalkAttitude(Carry carry, Quat q0, double tau, double turn_every_s) {
  Quat frame = Mul(AxisAngle(kZ, TurnAngle(tau, turn_every_s)), HeadingOf(q0));
  double s = StridePhase(tau);
  Quat body;
  if (carry == Carry::kInFront) {
    body = Mul(AxisAngle(kX, kReadingTiltRad + kWobbleXRad * std::sin(2 * s)),
               AxisAngle(kY, kWobbleYRad * std::sin(s)));
  } else {
    // The arm turns about the walker's lateral (x) axis; the hand holds the
    // phone in a fixed hanging attitude.
    Quat hang = Mul(AxisAngle(kX, kHangPitchRad), AxisAngle(kY, kHangRollRad));
    body = Mul(AxisAngle(kX, kArmSwingRad * std::sin(s)), hang);
  }
  return Nlerp(q0, Normalized(Mul(frame, body)), SmoothStep(tau / kBlendS));
}

V3 WalkPosition(Carry carry, Quat q0, double tau, double duration_s, double turn_every_s) {
  Quat frame = Mul(AxisAngle(kZ, TurnAngle(tau, turn_every_s)), HeadingOf(q0));
  double s = StridePhase(tau);
  V3 p{kSwayM * std::sin(s), 0, kBounceM * std::sin(2 * s)};
  if (carry == Carry::kSwinging) {
    double a = kArmSwingRad * std::sin(s);
    // Relative to the hand's rest point straight below the shoulder.
    p = p + V3{0, kArmM * std::sin(a), kArmM * (1 - std::cos(a))};
  }
  double fade = SmoothStep(tau / kBlendS) * SmoothStep((duration_s - tau) / kBlendS);
  return fade * Rotate(frame, p);
}

}  // namespace qvn_tools
