// Name -> type table of the library's exported variables, and the parsing and
// writing of --set assignments.
#include "core/tunables.h"

#include <cctype>
#include <cerrno>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <type_traits>

#include "core/event_csv.h"
#include "tunable_list.inc"  // generated: subsystem headers + QVN_FOR_EACH_TUNABLE

namespace qvn_tools {
namespace {

template <typename>
inline constexpr bool kUnsupported = false;

// Maps a declared element type to its tag. An exported variable of any other
// type stops the build here.
template <typename T>
constexpr ScalarType ScalarOf() {
  if constexpr (std::is_same_v<T, float>)
    return ScalarType::kF32;
  else if constexpr (std::is_same_v<T, int8_t>)
    return ScalarType::kI8;
  else if constexpr (std::is_same_v<T, uint8_t>)
    return ScalarType::kU8;
  else if constexpr (std::is_same_v<T, int16_t>)
    return ScalarType::kI16;
  else if constexpr (std::is_same_v<T, uint16_t>)
    return ScalarType::kU16;
  else if constexpr (std::is_same_v<T, int32_t>)
    return ScalarType::kI32;
  else if constexpr (std::is_same_v<T, uint32_t>)
    return ScalarType::kU32;
  else if constexpr (std::is_same_v<T, int64_t>)
    return ScalarType::kI64;
  else if constexpr (std::is_same_v<T, uint64_t>)
    return ScalarType::kU64;
  else
    static_assert(kUnsupported<T>,
                  "an exported variable has an element type the tools do not know");
}

template <typename T>
TunableInfo MakeInfo(const char *name) {
  using Base = std::remove_cv_t<std::remove_all_extents_t<T>>;
  static_assert(std::rank_v<T> <= 2, "exported arrays have at most two dimensions");
  constexpr size_t kBases = sizeof(T) / sizeof(Base);
  if constexpr (std::is_same_v<Base, Vec3f>) {
    static_assert(sizeof(Vec3f) == 3 * sizeof(float), "Vec3f is three packed floats");
    return {name, ScalarType::kF32, sizeof(float), kBases, 3, true};
  } else {
    constexpr size_t kRows = std::rank_v<T> == 2 ? std::extent_v<T, 0> : 1;
    return {name, ScalarOf<Base>(), sizeof(Base), kRows, kBases / kRows, false};
  }
}

#define QVN_TUNABLE_INFO(n) MakeInfo<decltype(n)>(#n),
const std::vector<TunableInfo> kTable = {QVN_FOR_EACH_TUNABLE(QVN_TUNABLE_INFO)};
#undef QVN_TUNABLE_INFO

bool ParseIndex(const std::string &s, size_t *pos, size_t *value) {
  if (*pos >= s.size() || s[*pos] != '[') return false;
  size_t end = s.find(']', *pos);
  if (end == std::string::npos || end == *pos + 1) return false;
  size_t v = 0;
  for (size_t i = *pos + 1; i < end; ++i) {
    if (s[i] < '0' || s[i] > '9' || v > 1000000) return false;
    v = v * 10 + static_cast<size_t>(s[i] - '0');
  }
  *value = v;
  *pos = end + 1;
  return true;
}

template <typename T>
bool ParseInteger(const std::string &text, uint64_t *bits, std::string *error) {
  const char *s = text.c_str();
  char *end = nullptr;
  errno = 0;
  bool in_range = true;
  T v{};
  if constexpr (std::is_signed_v<T>) {
    long long x = std::strtoll(s, &end, 0);
    in_range =
        errno != ERANGE && x >= std::numeric_limits<T>::min() && x <= std::numeric_limits<T>::max();
    v = static_cast<T>(x);
  } else {
    // strtoull would quietly wrap "-1" to the largest value.
    in_range = text.find('-') == std::string::npos;
    unsigned long long x = std::strtoull(s, &end, 0);
    in_range = in_range && errno != ERANGE && x <= std::numeric_limits<T>::max();
    v = static_cast<T>(x);
  }
  if (end == s || *end != '\0') {
    *error = Quoted(text) + " is not an integer";
    return false;
  }
  if (!in_range) {
    *error = Quoted(text) + " is out of range [" + std::to_string(+std::numeric_limits<T>::min()) +
             ", " + std::to_string(+std::numeric_limits<T>::max()) + "]";
    return false;
  }
  *bits = 0;
  std::memcpy(bits, &v, sizeof v);
  return true;
}

}  // namespace

const std::vector<TunableInfo> &AllTunables() { return kTable; }

const TunableInfo *FindTunable(const std::string &name) {
  for (const TunableInfo &t : kTable) {
    if (name == t.name) return &t;
  }
  return nullptr;
}

const char *TypeName(ScalarType t) {
  // In the order of ScalarType.
  static const char *const kNames[] = {"float32", "int8",   "uint8", "int16", "uint16",
                                       "int32",   "uint32", "int64", "uint64"};
  return kNames[static_cast<int>(t)];
}

bool ParseScalar(const std::string &text, ScalarType t, uint64_t *bits, std::string *error,
                 bool allow_nonfinite) {
  if (text.empty()) {
    *error = "the value is empty";
    return false;
  }
  switch (t) {
    case ScalarType::kF32: {
      char *end = nullptr;
      // strtof, not strtod + cast: the value is rounded once, as a float
      // literal in the library's source would be.
      float f = std::strtof(text.c_str(), &end);
      if (end == text.c_str() || *end != '\0') {
        *error = Quoted(text) + " is not a number";
        return false;
      }
      if (!allow_nonfinite && !std::isfinite(f)) {
        double d = 0;
        *error = Quoted(text) + " " +
                 (ParseDouble(text, &d) ? "is beyond the float32 range (|value| <= 3.4e38)"
                                        : "is not a finite number") +
                 " (--allow-nonfinite passes such values on)";
        return false;
      }
      *bits = 0;
      std::memcpy(bits, &f, sizeof f);
      return true;
    }
    case ScalarType::kI8:
      return ParseInteger<int8_t>(text, bits, error);
    case ScalarType::kU8:
      return ParseInteger<uint8_t>(text, bits, error);
    case ScalarType::kI16:
      return ParseInteger<int16_t>(text, bits, error);
    case ScalarType::kU16:
      return ParseInteger<uint16_t>(text, bits, error);
    case ScalarType::kI32:
      return ParseInteger<int32_t>(text, bits, error);
    case ScalarType::kU32:
      return ParseInteger<uint32_t>(text, bits, error);
    case ScalarType::kI64:
      return ParseInteger<int64_t>(text, bits, error);
    case ScalarType::kU64:
      return ParseInteger<uint64_t>(text, bits, error);
  }
  *error = "unsupported type";
  return false;
}

bool ParseAssignment(const std::string &text, Assignment *out, std::string *error,
                     bool allow_nonfinite) {
  size_t eq = text.find('=');
  if (eq == std::string::npos || eq == 0) {
    *error = Quoted(text) + " is not of the form NAME=VALUE";
    return false;
  }
  std::string lhs = text.substr(0, eq);
  size_t pos = 0;
  while (pos < lhs.size() &&
         (std::isalnum(static_cast<unsigned char>(lhs[pos])) || lhs[pos] == '_'))
    ++pos;
  std::string name = lhs.substr(0, pos);
  const TunableInfo *info = FindTunable(name);
  if (info == nullptr) {
    *error = "unknown tunable " + Quoted(name) + " (--list-tunables shows every name)";
    return false;
  }
  Assignment a;
  a.info = info;
  a.text = text;
  a.first = 0;
  a.count = info->count();
  if (pos < lhs.size()) {
    size_t i = 0, j = 0;
    bool ok = false;
    if (lhs[pos] == '.' && info->is_vec3 && info->rows == 1 && pos + 2 == lhs.size() &&
        std::strchr("xyz", lhs[pos + 1]) != nullptr) {
      i = static_cast<size_t>(lhs[pos + 1] - 'x');
      pos += 2;
      ok = true;
    } else if (ParseIndex(lhs, &pos, &i)) {
      ok = true;
      if (pos < lhs.size()) {
        // Second index: NAME[row][col].
        ok = info->rows > 1 && ParseIndex(lhs, &pos, &j) && pos == lhs.size() && i < info->rows &&
             j < info->cols;
        i = i * info->cols + j;
      }
    }
    // A scalar takes no index at all.
    if (!ok || pos != lhs.size() || i >= info->count() || info->count() == 1) {
      *error = "tunable '" + name + "' (" + TypeName(info->type) + ", " +
               std::to_string(info->count()) + " element(s)): bad index in " + Quoted(lhs);
      return false;
    }
    a.first = i;
    a.count = 1;
  }
  std::string why;
  if (!ParseScalar(text.substr(eq + 1), info->type, &a.bits, &why, allow_nonfinite)) {
    *error = "tunable '" + name + "' (" + TypeName(info->type) + "): " + why;
    return false;
  }
  *out = a;
  return true;
}

void Apply(const Assignment &a, void *base) {
  auto *bytes = static_cast<unsigned char *>(base);
  for (size_t k = a.first; k < a.first + a.count && k < a.info->count(); ++k) {
    std::memcpy(bytes + k * a.info->element_size, &a.bits, a.info->element_size);
  }
}

std::string FormatElement(const TunableInfo &info, const void *base, size_t i) {
  const auto *p = static_cast<const unsigned char *>(base) + i * info.element_size;
  char buf[48];
  auto load = [p](auto v) {
    std::memcpy(&v, p, sizeof v);
    return v;
  };
  switch (info.type) {
    case ScalarType::kF32:
      std::snprintf(buf, sizeof buf, "%.9g", static_cast<double>(load(0.0f)));
      break;
    case ScalarType::kI8:
      std::snprintf(buf, sizeof buf, "%d", load(int8_t{0}));
      break;
    case ScalarType::kU8:
      std::snprintf(buf, sizeof buf, "%u", load(uint8_t{0}));
      break;
    case ScalarType::kI16:
      std::snprintf(buf, sizeof buf, "%d", load(int16_t{0}));
      break;
    case ScalarType::kU16:
      std::snprintf(buf, sizeof buf, "%u", load(uint16_t{0}));
      break;
    case ScalarType::kI32:
      std::snprintf(buf, sizeof buf, "%" PRId32, load(int32_t{0}));
      break;
    case ScalarType::kU32:
      std::snprintf(buf, sizeof buf, "%" PRIu32, load(uint32_t{0}));
      break;
    case ScalarType::kI64:
      std::snprintf(buf, sizeof buf, "%" PRId64, load(int64_t{0}));
      break;
    case ScalarType::kU64:
      std::snprintf(buf, sizeof buf, "%" PRIu64, load(uint64_t{0}));
      break;
  }
  return buf;
}

}  // namespace qvn_tools
