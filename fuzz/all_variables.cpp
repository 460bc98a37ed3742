// The element table behind WriteElement.
#include "all_variables.h"

#include <string.h>

#include <type_traits>

#include "tunable_list.inc"

namespace qvn_fuzz {
namespace {

struct Variable {
  const char *name;
  size_t element_size;  // bytes of one scalar
  size_t count;         // scalars
  bool is_float;
};

template <class T>
constexpr Variable Describe(const char *name) {
  using E = std::remove_all_extents_t<T>;
  constexpr bool kVec = std::is_class<E>::value;  // Vec3f: three floats
  constexpr size_t kScalar = kVec ? sizeof(float) : sizeof(E);
  return Variable{name, kScalar, sizeof(T) / kScalar, kVec || std::is_floating_point<E>::value};
}

// Read-only tables (const) are not writable by a host; they are left out.
#define QVN_DESCRIBE(v) \
  std::is_const<std::remove_all_extents_t<decltype(v)>>::value ? Variable{nullptr, 0, 0, false} \
                                                                : Describe<decltype(v)>(#v),
const Variable kVariables[] = {QVN_FOR_EACH_TUNABLE(QVN_DESCRIBE)};
#undef QVN_DESCRIBE

constexpr size_t kVariableCount = sizeof kVariables / sizeof kVariables[0];

size_t Total() {
  static const size_t total = [] {
    size_t n = 0;
    for (const Variable &v : kVariables) n += v.count;
    return n;
  }();
  return total;
}

}  // namespace

size_t ElementCount() { return Total(); }

const char *WriteElement(size_t i, Reader &r, void *(*resolve)(const char *name)) {
  size_t k = i % Total();
  for (size_t v = 0; v < kVariableCount; ++v) {
    const Variable &var = kVariables[v];
    if (k >= var.count) {
      k -= var.count;
      continue;
    }
    unsigned char *base = static_cast<unsigned char *>(resolve(var.name));
    if (base == nullptr) return var.name;
    unsigned char *p = base + k * var.element_size;
    if (var.is_float) {
      float f = r.Float();
      memcpy(p, &f, sizeof f);
    } else {
      // Any value of the element's own width.
      switch (var.element_size) {
        case 1: { uint8_t b = r.U8(); memcpy(p, &b, 1); break; }
        case 2: { uint16_t b = r.U16(); memcpy(p, &b, 2); break; }
        case 4: { uint32_t b = r.U32(); memcpy(p, &b, 4); break; }
        default: { uint64_t b = r.U64(); memcpy(p, &b, var.element_size < 8 ? var.element_size : 8); break; }
      }
    }
    return var.name;
  }
  return "";
}

}  // namespace qvn_fuzz
