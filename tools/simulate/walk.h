// A walker's phone: held in front of the body for reading (walk) or swinging
// in the hand at the end of the arm (swing), along a path with turns.
//
// Gait: steps at kStepHz; the body bounces once a step and sways once a
// stride; the arm swings about the walker's lateral axis once a stride.
// Turns of a fixed pattern (90, 90, -90, 180, -90, 45, -135 degrees, positive
// to the left) take 2 s each and start every `turn_every_s` seconds.
// Attitude: phone-to-world (east, north, up), continuing from the attitude q0
// in which the segment starts (blended in over the first 1.5 s). Position:
// the oscillating part only (the steady forward speed has no acceleration),
// faded in and out at the segment's ends so that the accelerometer sees no
// jump between segments.
#ifndef QVNLIB_TOOLS_SIMULATE_WALK_H
#define QVNLIB_TOOLS_SIMULATE_WALK_H

#include "core/geometry.h"

namespace qvn_tools {

enum class Carry { kInFront, kSwinging };

// Attitude tau seconds into the segment.
Quat WalkAttitude(Carry carry, Quat q0, double tau, double turn_every_s);

// Position in metres, world frame, tau seconds into a segment of duration_s.
V3 WalkPosition(Carry carry, Quat q0, double tau, double duration_s, double turn_every_s);

}  // namespace qvn_tools

#endif  // QVNLIB_TOOLS_SIMULATE_WALK_H
