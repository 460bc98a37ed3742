// Replaying through the host layer (qvn_replay --host-layer) instead of the
// bare entry table: the layer loads the same library instance, filters the
// samples, holds early gyroscope samples and recovers from outputs that are
// not finite; the rows are those of the bare replay.
#ifndef QVNLIB_TOOLS_REPLAY_LAYER_REPLAY_H
#define QVNLIB_TOOLS_REPLAY_LAYER_REPLAY_H

#include <cstdio>
#include <string>
#include <vector>

#include "core/tunables.h"
#include "replay/library.h"
#include "replay/replay_loop.h"

namespace qvn_tools {

// Opens the layer on lib (which must not have been called yet) with the
// assignments as the host's tunable set. Returns false with *error.
bool OpenHostLayer(const Library &lib, int hw_gyro, const std::vector<Assignment> &sets,
                   std::string *error);

// As Replayer, through the layer (skip_early_gyro and reinit_on_nan are the
// layer's own business and ignored; counts.reinits are its recoveries).
class LayerReplayer {
 public:
  LayerReplayer(const Library &lib, const ReplayConfig &config);
  bool Feed(const Event &e, StepRow *row, bool *stepped, std::string *error);
  const ReplayCounts &counts();

 private:
  const ReplayConfig &config_;
  const float *qfusion_;
  CaliResult last_;
  ReplayCounts counts_;
};

// The layer's counters, one summary block.
void PrintLayerCounters(FILE *out);

}  // namespace qvn_tools

#endif  // QVNLIB_TOOLS_REPLAY_LAYER_REPLAY_H
