// The core's writable data as it stood right after loading, and the means to
// put it back.
//
// A loaded shared object keeps every variable it owns (initialised data and
// zero-initialised data, exported or private, static locals included) in its
// writable load segments. Copying those bytes once, before the first call, and
// writing them back later returns the object to its load-time state without
// unloading it: addresses stay valid (the host's dlsym pointers, the entry
// table), and nothing else in the process is touched. The read-only-after-
// relocation part (RELRO: the GOT, vtables, the entry table) is left out; it
// does not change after loading.
#ifndef QVNLIB_HOST_LAYER_LOAD_STATE_H
#define QVNLIB_HOST_LAYER_LOAD_STATE_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace qvn_layer {

class LoadState {
 public:
  LoadState() = default;
  ~LoadState();
  LoadState(const LoadState &) = delete;
  LoadState &operator=(const LoadState &) = delete;

  // Finds the loaded object that contains anchor and copies its writable
  // data. Returns false with a reason when the object or its segments cannot
  // be found, or memory for the copy cannot be had.
  bool Capture(const void *anchor, std::string *error);

  // Writes the copy back. Nothing is allocated.
  void Restore() const;

  // Bytes copied, and the ranges (for tests and messages).
  size_t bytes() const;
  size_t range_count() const { return count_; }
  void range(size_t i, uintptr_t *begin, size_t *size) const {
    *begin = ranges_[i].begin;
    *size = ranges_[i].size;
  }

 private:
  struct Range {
    uintptr_t begin = 0;
    size_t size = 0;
    unsigned char *copy = nullptr;
  };
  static constexpr size_t kMaxRanges = 8;
  Range ranges_[kMaxRanges];
  size_t count_ = 0;
};

}  // namespace qvn_layer

#endif  // QVNLIB_HOST_LAYER_LOAD_STATE_H
