// Capturing and restoring the writable load segments of one loaded object.
#include "load_state.h"

#include <elf.h>
#include <link.h>

#include <cstdlib>
#include <cstring>

namespace qvn_layer {
namespace {

struct Found {
  uintptr_t anchor;
  bool hit = false;
  bool tls = false;
  uintptr_t begin[8];
  size_t size[8];
  size_t count = 0;
};

// Writable PT_LOAD segments of the object that maps anchor, minus its RELRO
// range (which the loader makes read-only after relocating).
int Visit(struct dl_phdr_info *info, size_t, void *data) {
  Found *f = static_cast<Found *>(data);
  bool mine = false;
  for (int i = 0; i < info->dlpi_phnum; ++i) {
    const ElfW(Phdr) &p = info->dlpi_phdr[i];
    if (p.p_type != PT_LOAD) continue;
    uintptr_t b = info->dlpi_addr + p.p_vaddr;
    if (f->anchor >= b && f->anchor < b + p.p_memsz) mine = true;
  }
  if (!mine) return 0;
  uintptr_t relro_b = 0, relro_e = 0;
  for (int i = 0; i < info->dlpi_phnum; ++i) {
    const ElfW(Phdr) &p = info->dlpi_phdr[i];
    if (p.p_type == PT_TLS) f->tls = true;
    if (p.p_type == PT_GNU_RELRO) {
      relro_b = info->dlpi_addr + p.p_vaddr;
      relro_e = relro_b + p.p_memsz;
    }
  }
  for (int i = 0; i < info->dlpi_phnum; ++i) {
    const ElfW(Phdr) &p = info->dlpi_phdr[i];
    if (p.p_type != PT_LOAD || (p.p_flags & PF_W) == 0) continue;
    uintptr_t b = info->dlpi_addr + p.p_vaddr;
    uintptr_t e = b + p.p_memsz;
    // RELRO sits at the start of the writable segment (it may extend to the
    // page end beyond it); keep what follows it.
    if (relro_e > b && relro_b <= b) b = relro_e < e ? relro_e : e;
    if (e > b && f->count < 8) {
      f->begin[f->count] = b;
      f->size[f->count] = e - b;
      f->count++;
    }
  }
  f->hit = true;
  return 1;
}

// Plain word copies that the address sanitizer does not check: instrumented
// objects keep poisoned guard bytes between their variables, and they are
// restored like the rest (they hold zeros). Volatile so that the compiler
// does not turn the loop into a (checked) memcpy call.
__attribute__((no_sanitize("address"))) void RawCopy(unsigned char *dst, const unsigned char *src,
                                                      size_t n) {
  volatile unsigned char *d = dst;
  const volatile unsigned char *s = src;
  size_t i = 0;
  if ((reinterpret_cast<uintptr_t>(dst) & 7u) == 0 && (reinterpret_cast<uintptr_t>(src) & 7u) == 0) {
    volatile uint64_t *dw = reinterpret_cast<volatile uint64_t *>(dst);
    const volatile uint64_t *sw = reinterpret_cast<const volatile uint64_t *>(src);
    for (; i + 8 <= n; i += 8) dw[i / 8] = sw[i / 8];
  }
  for (; i < n; ++i) d[i] = s[i];
}

}  // namespace

LoadState::~LoadState() {
  for (Range &r : ranges_) std::free(r.copy);
}

bool LoadState::Capture(const void *anchor, std::string *error) {
  Found f;
  f.anchor = reinterpret_cast<uintptr_t>(anchor);
  dl_iterate_phdr(Visit, &f);
  if (!f.hit) {
    *error = "the loaded core was not found among the process's objects";
    return false;
  }
  if (f.tls) {
    // Per-thread copies live outside the segments: a copy would miss them.
    *error = "the core has thread-local data, which a copy of its segments does not cover";
    return false;
  }
  if (f.count == 0) {
    *error = "the core has no writable segment";
    return false;
  }
  // A copy of the same size from an earlier capture is reused (a host that
  // closes and opens the layer again does not allocate again).
  for (size_t i = f.count; i < kMaxRanges; ++i) {
    std::free(ranges_[i].copy);
    ranges_[i] = Range();
  }
  count_ = 0;
  for (size_t i = 0; i < f.count; ++i) {
    Range &r = ranges_[i];
    if (r.copy == nullptr || r.size != f.size[i]) {
      std::free(r.copy);
      r.copy = static_cast<unsigned char *>(std::malloc(f.size[i]));
    }
    r.begin = f.begin[i];
    r.size = f.size[i];
    if (r.copy == nullptr) {
      *error = "no memory for the copy of the core's data";
      return false;
    }
    RawCopy(r.copy, reinterpret_cast<const unsigned char *>(r.begin), r.size);
    count_ = i + 1;
  }
  return true;
}

void LoadState::Restore() const {
  for (size_t i = 0; i < count_; ++i) {
    RawCopy(reinterpret_cast<unsigned char *>(ranges_[i].begin), ranges_[i].copy, ranges_[i].size);
  }
}

size_t LoadState::bytes() const {
  size_t n = 0;
  for (size_t i = 0; i < count_; ++i) n += ranges_[i].size;
  return n;
}

}  // namespace qvn_layer
