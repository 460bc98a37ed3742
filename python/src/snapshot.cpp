// Saving and restoring the writable segments of a loaded shared object.
#include "snapshot.h"

#include <link.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>

namespace qvn_python {
namespace {

struct Search {
  uintptr_t address;
  bool found = false;
  bool has_tls = false;
  // Writable load segments and the part the loader made read-only after
  // relocation (it must not be written, and never changes).
  std::vector<std::pair<uintptr_t, uintptr_t>> writable;
  uintptr_t relro_begin = 0, relro_end = 0;
};

int Visit(struct dl_phdr_info *info, size_t, void *data) {
  auto *s = static_cast<Search *>(data);
  bool contains = false;
  for (int i = 0; i < info->dlpi_phnum; ++i) {
    const ElfW(Phdr) &ph = info->dlpi_phdr[i];
    uintptr_t begin = info->dlpi_addr + ph.p_vaddr;
    if (ph.p_type == PT_LOAD && s->address >= begin && s->address < begin + ph.p_memsz) {
      contains = true;
    }
  }
  if (!contains) return 0;
  const uintptr_t page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
  s->found = true;
  for (int i = 0; i < info->dlpi_phnum; ++i) {
    const ElfW(Phdr) &ph = info->dlpi_phdr[i];
    uintptr_t begin = info->dlpi_addr + ph.p_vaddr;
    if (ph.p_type == PT_TLS) s->has_tls = true;
    if (ph.p_type == PT_LOAD && (ph.p_flags & PF_W) != 0 && ph.p_memsz > 0) {
      s->writable.emplace_back(begin, begin + ph.p_memsz);
    }
    if (ph.p_type == PT_GNU_RELRO) {
      // The loader protects whole pages: the start rounded down, the end too.
      s->relro_begin = begin & ~(page - 1);
      s->relro_end = (begin + ph.p_memsz) & ~(page - 1);
    }
  }
  return 1;
}

// A library built with AddressSanitizer keeps poisoned red zones between its
// variables; the copy covers them on purpose, so it is not instrumented, and
// the volatile accesses keep the compiler from calling the checked memcpy.
__attribute__((no_sanitize("address"))) void CopyBytes(unsigned char *to, const unsigned char *from,
                                                       size_t n) {
  volatile unsigned char *t = to;
  const volatile unsigned char *f = from;
  for (size_t i = 0; i < n; ++i) t[i] = f[i];
}

}  // namespace

bool LoadTimeState::Capture(const void *address, std::string *error) {
  Search s;
  s.address = reinterpret_cast<uintptr_t>(address);
  dl_iterate_phdr(Visit, &s);
  if (!s.found) {
    *error = "no loaded object contains the library's entry table";
    return false;
  }
  if (s.has_tls) {
    *error = "the library has thread-local variables: its load-time state cannot be kept";
    return false;
  }
  ranges_.clear();
  for (auto [begin, end] : s.writable) {
    // The segment minus the read-only relocation pages: at most two pieces.
    std::pair<uintptr_t, uintptr_t> pieces[2] = {{begin, std::min(end, s.relro_begin)},
                                                 {std::max(begin, s.relro_end), end}};
    if (s.relro_end <= s.relro_begin) pieces[0] = {begin, end}, pieces[1] = {0, 0};
    for (auto [b, e] : pieces) {
      if (e <= b) continue;
      Range r;
      r.begin = reinterpret_cast<unsigned char *>(b);
      r.saved.resize(e - b);
      CopyBytes(r.saved.data(), r.begin, r.saved.size());
      ranges_.push_back(std::move(r));
    }
  }
  return true;
}

void LoadTimeState::Restore() const {
  for (const Range &r : ranges_) CopyBytes(r.begin, r.saved.data(), r.saved.size());
}

size_t LoadTimeState::bytes() const {
  size_t n = 0;
  for (const Range &r : ranges_) n += r.saved.size();
  return n;
}

const LoadTimeState *LoadTimeStateOf(const void *address, std::string *error) {
  // Keyed by the object's first writable byte; only the first capture of an
  // object is from before any call. Objects are never unloaded here, so an
  // entry stays valid for the life of the process.
  static std::mutex mutex;
  static std::map<uintptr_t, std::unique_ptr<LoadTimeState>> states;
  std::lock_guard<std::mutex> lock(mutex);
  Search s;
  s.address = reinterpret_cast<uintptr_t>(address);
  dl_iterate_phdr(Visit, &s);
  uintptr_t key = s.writable.empty() ? 0 : s.writable.front().first;
  auto it = states.find(key);
  if (s.found && it != states.end()) return it->second.get();
  auto state = std::make_unique<LoadTimeState>();
  if (!state->Capture(address, error)) return nullptr;
  return states.emplace(key, std::move(state)).first->second.get();
}

}  // namespace qvn_python
