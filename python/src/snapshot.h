// The library's load-time state, kept so that every replay in a process
// starts exactly where a freshly started process would.
//
// The library keeps all of its state in its own writable data (it allocates
// nothing and has no thread-local variables), and QVN_CaliInitLib does not
// reset all of it (the fusion time, the moving average's memory, the offset
// kept for re-initialisation). The bytes of its writable segments are saved
// the first time this process sees the library, before anything has called
// into it, and written back before every replay: a memcpy of a few tens of
// kilobytes, against a fork of the interpreter or a fresh copy of the file
// per replay.
#ifndef QVNLIB_PYTHON_SNAPSHOT_H
#define QVNLIB_PYTHON_SNAPSHOT_H

#include <string>
#include <vector>

namespace qvn_python {

class LoadTimeState {
 public:
  // Saves the writable segments of the loaded object that contains address.
  // False with a reason when there is no such object or when it has
  // thread-local storage (which a copy of its segments would not cover).
  bool Capture(const void *address, std::string *error);
  // Writes the saved bytes back.
  void Restore() const;
  size_t bytes() const;

 private:
  struct Range {
    unsigned char *begin;
    std::vector<unsigned char> saved;
  };
  std::vector<Range> ranges_;
};

// The load-time state of the object that contains address, captured on the
// first call for that object in this process; nullptr (with *error) when it
// cannot be captured.
const LoadTimeState *LoadTimeStateOf(const void *address, std::string *error);

}  // namespace qvn_python

#endif  // QVNLIB_PYTHON_SNAPSHOT_H
