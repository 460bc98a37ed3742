// Every exported variable of the library, by name, with its real element type
// and shape, so that a tool can read or write it through dlsym.
//
// The list is generated from the subsystem headers at build time; types and
// shapes come from the declarations themselves (decltype), never from a
// hand-kept copy. Vec3f variables are three floats (NAME.x or NAME[0]); 2-D
// arrays accept NAME[i][j] as well as a flat NAME[k].
#ifndef QVNLIB_TOOLS_CORE_TUNABLES_H
#define QVNLIB_TOOLS_CORE_TUNABLES_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace qvn_tools {

enum class ScalarType { kF32, kI8, kU8, kI16, kU16, kI32, kU32, kI64, kU64 };

struct TunableInfo {
  const char *name;
  ScalarType type;
  size_t element_size;  // bytes of one scalar
  size_t rows;          // 1 for scalars and 1-D arrays
  size_t cols;          // elements per row (3 for a Vec3f)
  bool is_vec3;         // accepts .x / .y / .z
  size_t count() const { return rows * cols; }
  size_t byte_size() const { return count() * element_size; }
};

const std::vector<TunableInfo> &AllTunables();
const TunableInfo *FindTunable(const std::string &name);
const char *TypeName(ScalarType t);

// One parsed --set NAME[i]=VALUE: which variable, which element, what bytes.
struct Assignment {
  const TunableInfo *info = nullptr;
  size_t first = 0;   // element index
  size_t count = 0;   // 1 for an element, all elements when no index is given
  uint64_t bits = 0;  // value in the element's own representation
  std::string text;   // as given, for messages
};

// Parses "NAME=VALUE", "NAME[i]=VALUE", "NAME[i][j]=VALUE" or "NAME.x=VALUE".
// A name without an index on an array sets every element. On failure returns
// false and says why in *error (naming the tunable or the value).
// allow_nonfinite lets a float take nan, inf or a value beyond float32 (as
// inf), to see what the library makes of it; otherwise they are refused.
bool ParseAssignment(const std::string &text, Assignment *out, std::string *error,
                     bool allow_nonfinite = false);

// Parses a value for one element of type t. Integers must fit the type,
// floats be finite and within float32 unless allow_nonfinite.
bool ParseScalar(const std::string &text, ScalarType t, uint64_t *bits, std::string *error,
                 bool allow_nonfinite = false);

// Writes the assignment into the variable whose first byte is at base.
void Apply(const Assignment &a, void *base);

// Formats element i of the variable at base, for listings and summaries.
std::string FormatElement(const TunableInfo &info, const void *base, size_t i);

}  // namespace qvn_tools

#endif  // QVNLIB_TOOLS_CORE_TUNABLES_H
