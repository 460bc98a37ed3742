// Visibility of the library's named interface.
//
// Every function and variable that an integrator may reach by name is declared
// in one subsystem header between QVN_EXPORT_BEGIN and QVN_EXPORT_END; the
// library is otherwise compiled with hidden visibility, so anything declared
// outside these blocks stays private to the .so.
#ifndef QVNLIB_COMMON_EXPORT_H
#define QVNLIB_COMMON_EXPORT_H

#include <stdint.h>

#include "qvnlib/qvnlib.h"

#define QVN_EXPORT_BEGIN \
  _Pragma("GCC visibility push(default)") extern "C" {
#define QVN_EXPORT_END \
  }                    \
  _Pragma("GCC visibility pop")

#endif  // QVNLIB_COMMON_EXPORT_H
