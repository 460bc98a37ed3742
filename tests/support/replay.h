// Drives a simulated recording through MAG_LIB_API_INTERFACE in the host's
// calling order and hands every calibration step's outputs to a visitor.
#ifndef QVNLIB_TESTS_SUPPORT_REPLAY_H
#define QVNLIB_TESTS_SUPPORT_REPLAY_H

#include <functional>
#include <vector>

#include "qvnlib/qvnlib.h"
#include "support/motion.h"

namespace qvn_test {

struct StepOutputs {
  CaliResult cali;
  // Gravity, RotationVector, Orientation, Linearaccel, GameRotationVector,
  // GeoMagnetic, VirtualGyro, in table order.
  FusionEvent fusion[7];
};

// Initialises with hwGyro, then replays events; after every QVN_DoCaliAPI the
// seven getters are polled and visit() receives the step's outputs.
//
// With a hardware gyroscope, a gyroscope sample that reaches the library
// before the first magnetometer sample runs a fusion step while the start-up
// ramp length is still 0: the weights become 0/0 and the attitude NaN until
// the next initialisation. A service avoids that by holding gyroscope samples
// back until the first magnetometer sample has been calibrated, which is what
// the replay does.
void ReplayThroughTable(const std::vector<SimEvent> &events, int8_t hw_gyro,
                        const std::function<void(const StepOutputs &)> &visit);

}  // namespace qvn_test

#endif  // QVNLIB_TESTS_SUPPORT_REPLAY_H
