// Tunable sets as files: one "NAME=VALUE" or "NAME[i]=VALUE" a line (the
// --set syntax), '#' starts a comment. qvn_tune writes them and qvn_replay
// reads them with --set-file. The same set can be written as a C function
// that a host calls with the library's dlopen handle after QVN_CaliInitLib.
#ifndef QVNLIB_TOOLS_CORE_SET_FILE_H
#define QVNLIB_TOOLS_CORE_SET_FILE_H

#include <string>
#include <vector>

#include "core/tunables.h"

namespace qvn_tools {

// Appends the file's assignments to *out. On failure returns false with
// "<path>:<line>: ..." in *error.
bool ReadSetFile(const std::string &path, std::vector<Assignment> *out, std::string *error,
                 bool allow_nonfinite = false);
// The same from text in memory; name is used in messages.
bool ReadSetText(const char *data, size_t size, const std::string &name,
                 std::vector<Assignment> *out, std::string *error, bool allow_nonfinite = false);

// "NAME=VALUE" (or NAME[i]=VALUE) of one assignment, with the value as stored.
std::string FormatAssignment(const Assignment &a);

// The set file text: the comment lines (each prefixed "# "), then one line per
// assignment.
std::string SetFileText(const std::vector<Assignment> &set,
                        const std::vector<std::string> &comment);

// A self-contained C function `qvn_apply_tuned_set(void *lib)` that writes the
// set through dlsym, with the comment lines at its top.
std::string CSnippetText(const std::vector<Assignment> &set,
                         const std::vector<std::string> &comment);

// Writes text to path (through a temporary renamed into place); path must be
// a regular file or not exist yet (see output_file.h).
bool WriteTextFile(const std::string &path, const std::string &text, std::string *error);

}  // namespace qvn_tools

#endif  // QVNLIB_TOOLS_CORE_SET_FILE_H
