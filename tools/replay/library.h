// The library as a sensor service sees it: loaded with dlopen, driven through
// the MAG_LIB_API_INTERFACE table, plus the host platform hooks (property
// store, power-supply folder) and named variables reached with dlsym.
#ifndef QVNLIB_TOOLS_REPLAY_LIBRARY_H
#define QVNLIB_TOOLS_REPLAY_LIBRARY_H

#include <string>

#include "qvnlib/qvnlib.h"

namespace qvn_tools {

class Library {
 public:
  // Loads path and looks up the table and the host hooks. On failure returns
  // false with the loader's message in *error.
  bool Load(const std::string &path, std::string *error);

  const QvnLibApiTable &api() const { return *api_; }
  const std::string &path() const { return path_; }

  // Address of an exported variable or function, or nullptr.
  void *Symbol(const char *name) const;

  // Host platform stand-ins (libqvnhost, loaded as the library's dependency).
  bool SetProperty(const char *key, const char *value) const;
  bool SetSysfsRoot(const char *root) const;

 private:
  void *handle_ = nullptr;
  const QvnLibApiTable *api_ = nullptr;
  std::string path_;
  int (*property_set_)(const char *, const char *) = nullptr;
  void (*set_sysfs_root_)(const char *) = nullptr;
};

// Where the library is looked for when --lib is not given: $QVN_LIBRARY, the
// installed layout beside this executable, then the build tree it was built in.
std::string DefaultLibraryPath();

// Android log priorities by name ("debug", "error", "silent", ...).
bool ParseLogLevel(const std::string &name, int *priority);

// Sends the library's log lines to stderr from priority upward
// (ANDROID_LOG_SILENT for none).
void RouteLibraryLog(int min_priority);

}  // namespace qvn_tools

#endif  // QVNLIB_TOOLS_REPLAY_LIBRARY_H
