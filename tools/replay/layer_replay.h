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

// As RunReplay, through the layer (skip_early_gyro and reinit_on_nan are the
// layer's own business and ignored).
bool RunLayerReplay(const Library &lib, const std::vector<Event> &events,
                    const ReplayConfig &config, std::vector<StepRow> *rows, ReplayCounts *counts,
                    std::string *error);

// The layer's counters, one summary block.
void PrintLayerCounters(FILE *out);

}  // namespace qvn_tools

#endif  // QVNLIB_TOOLS_REPLAY_LAYER_REPLAY_H
