// One load-time copy per loaded object, for the life of the process.
#include "snapshot.h"

#include <link.h>

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>

namespace qvn_python {
namespace {

// The start of the object that maps address (0 when none does): the key
// under which its copy is kept.
int FindBase(struct dl_phdr_info *info, size_t, void *data) {
  auto *key = static_cast<uintptr_t *>(data);
  for (int i = 0; i < info->dlpi_phnum; ++i) {
    const ElfW(Phdr) &ph = info->dlpi_phdr[i];
    uintptr_t begin = info->dlpi_addr + ph.p_vaddr;
    if (ph.p_type == PT_LOAD && *key >= begin && *key < begin + ph.p_memsz) {
      *key = info->dlpi_addr;
      return 1;
    }
  }
  return 0;
}

}  // namespace

const LoadTimeState *LoadTimeStateOf(const void *address, std::string *error) {
  // Only the first capture of an object is from before any call. Objects are
  // never unloaded here, so an entry stays valid for the life of the process.
  static std::mutex mutex;
  static std::map<uintptr_t, std::unique_ptr<LoadTimeState>> states;
  std::lock_guard<std::mutex> lock(mutex);
  uintptr_t key = reinterpret_cast<uintptr_t>(address);
  if (dl_iterate_phdr(FindBase, &key) == 0) key = 0;
  auto it = states.find(key);
  if (key != 0 && it != states.end()) return it->second.get();
  auto state = std::make_unique<LoadTimeState>();
  if (!state->Capture(address, error)) return nullptr;
  return states.emplace(key, std::move(state)).first->second.get();
}

}  // namespace qvn_python
