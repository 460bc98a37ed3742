// The library's load-time state, kept so that every replay in a process
// starts exactly where a freshly started process would.
//
// The library keeps all of its state in its own writable data (it allocates
// nothing and has no thread-local variables), and QVN_CaliInitLib does not
// reset all of it (the fusion time, the moving average's memory, the offset
// kept for re-initialisation). The bytes of its writable segments are saved
// the first time this process sees the library, before anything has called
// into it, and written back before every replay: a memcpy of a few tens of
// kilobytes, against a fork of the interpreter or a fresh copy of the file
// per replay. The copy is the host layer's own (load_state.h).
#ifndef QVNLIB_PYTHON_SNAPSHOT_H
#define QVNLIB_PYTHON_SNAPSHOT_H

#include <string>

#include "load_state.h"

namespace qvn_python {

using LoadTimeState = qvn_layer::LoadState;

// The load-time state of the object that contains address, captured on the
// first call for that object in this process; nullptr (with *error) when it
// cannot be captured.
const LoadTimeState *LoadTimeStateOf(const void *address, std::string *error);

}  // namespace qvn_python

#endif  // QVNLIB_PYTHON_SNAPSHOT_H
