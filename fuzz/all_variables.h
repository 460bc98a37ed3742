// Every element of every exported variable, as the fuzzers write them: the
// list comes from the subsystem headers (generated at build time), the types
// and shapes from the declarations themselves.
#ifndef QVNLIB_FUZZ_ALL_VARIABLES_H
#define QVNLIB_FUZZ_ALL_VARIABLES_H

#include <stddef.h>
#include <stdint.h>

#include "fuzz_input.h"

namespace qvn_fuzz {

// Number of writable elements (a Vec3f counts three floats).
size_t ElementCount();

// Writes element i (modulo the count) with a value of its own type from r;
// resolve(name) gives the variable's address (the harness's own objects, or
// dlsym on a loaded core). Returns the variable's name.
const char *WriteElement(size_t i, Reader &r, void *(*resolve)(const char *name));

}  // namespace qvn_fuzz

#endif  // QVNLIB_FUZZ_ALL_VARIABLES_H
