// The exported variables a host can write by name, as the host-calls fuzzer
// sees them: a table of typed slots with a snapshot of their load-time values,
// so that every fuzz input starts from the same tunables.
#ifndef QVNLIB_FUZZ_TUNABLES_H
#define QVNLIB_FUZZ_TUNABLES_H

#include <stddef.h>
#include <stdint.h>

#include "fuzz_input.h"

namespace qvn_fuzz {

// Number of slots in the table (window lengths, batch sizes, rates, ring
// indices, axis codes, modes, thresholds, weights).
size_t TunableCount();

// Name of slot i (for a reproducer's log); i is taken modulo the count.
const char *TunableName(size_t i);

// Writes slot i (modulo the count) with a value of its own type read from r:
// integers take their full range, floats take any encoded float.
void WriteTunable(size_t i, Reader &r);

// Records the current value of every slot; RestoreTunables writes them back.
void SnapshotTunables();
void RestoreTunables();

}  // namespace qvn_fuzz

#endif  // QVNLIB_FUZZ_TUNABLES_H
