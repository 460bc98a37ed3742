// Loading the library the way the sensor service does, and routing its log.
#include "replay/library.h"

#include <android/log.h>
#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace qvn_tools {
namespace {

bool Exists(const std::string &path) { return access(path.c_str(), R_OK) == 0; }

std::string DirName(const std::string &path) {
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? std::string(".") : path.substr(0, slash);
}

std::string ExecutableDir() {
  char buf[4096];
  ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
  if (n <= 0) return ".";
  buf[n] = '\0';
  return DirName(buf);
}

// One line per message; the library ends many lines with "\r\n" or "\n", which
// are dropped here so that stderr stays readable.
void StderrLogger(const struct __android_logger_data *data, const char *message) {
  static const char kLetters[] = "??VDIWEFS";
  int p = data != nullptr ? data->priority : 0;
  char letter = (p >= 0 && p < 9) ? kLetters[p] : '?';
  size_t n = std::strlen(message);
  while (n > 0 && (message[n - 1] == '\n' || message[n - 1] == '\r')) --n;
  std::fprintf(stderr, "%c lib: %.*s\n", letter, static_cast<int>(n), message);
}

}  // namespace

bool Library::Load(const std::string &path, std::string *error) {
  // The host stand-in is the library's dependency. Loading it first from the
  // library's own folder lets an installed copy (without a run path) find it;
  // a failure here is not an error, the loader may still find it itself.
  std::string dir = DirName(path);
  for (const char *name : {"libqvnhost.so.1", "libqvnhost.so"}) {
    std::string host = dir + "/" + name;
    if (Exists(host) && dlopen(host.c_str(), RTLD_NOW | RTLD_GLOBAL) != nullptr) break;
  }
  handle_ = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle_ == nullptr) {
    const char *why = dlerror();
    *error = "cannot load the library '" + path + "': " + (why != nullptr ? why : "unknown error");
    return false;
  }
  path_ = path;
  api_ = static_cast<const QvnLibApiTable *>(dlsym(handle_, QVNLIB_TABLE_SYMBOL));
  if (api_ == nullptr) {
    *error = path + " does not export " QVNLIB_TABLE_SYMBOL;
    return false;
  }
  const void *const *slots = reinterpret_cast<const void *const *>(api_);
  for (int i = 0; i < 16; ++i) {
    if (slots[i] == nullptr) {
      *error = std::string(QVNLIB_TABLE_SYMBOL) + " slot " + std::to_string(i) + " is empty";
      return false;
    }
  }
  // dlsym on the handle also searches the library's dependencies, so the
  // hooks come from the very libqvnhost instance that the library reads.
  property_set_ = reinterpret_cast<int (*)(const char *, const char *)>(
      dlsym(handle_, "qvn_host_property_set"));
  set_sysfs_root_ =
      reinterpret_cast<void (*)(const char *)>(dlsym(handle_, "qvn_host_set_sysfs_root"));
  return true;
}

void *Library::Symbol(const char *name) const {
  return handle_ != nullptr ? dlsym(handle_, name) : nullptr;
}

bool Library::SetProperty(const char *key, const char *value) const {
  return property_set_ != nullptr && property_set_(key, value) == 0;
}

bool Library::SetSysfsRoot(const char *root) const {
  if (set_sysfs_root_ == nullptr) return false;
  set_sysfs_root_(root);
  return true;
}

std::string DefaultLibraryPath() {
  const char *env = std::getenv("QVN_LIBRARY");
  if (env != nullptr && env[0] != '\0') return env;
  std::string installed = ExecutableDir() + "/" QVN_INSTALLED_LIBRARY_FROM_BIN;
  if (Exists(installed)) return installed;
  if (Exists(QVN_BUILD_TREE_LIBRARY)) return QVN_BUILD_TREE_LIBRARY;
  return "libqvnlib.so";  // let the loader search its usual places
}

bool ParseLogLevel(const std::string &name, int *priority) {
  static const struct {
    const char *name;
    int priority;
  } kLevels[] = {{"verbose", ANDROID_LOG_VERBOSE}, {"debug", ANDROID_LOG_DEBUG},
                 {"info", ANDROID_LOG_INFO},       {"warn", ANDROID_LOG_WARN},
                 {"error", ANDROID_LOG_ERROR},     {"silent", ANDROID_LOG_SILENT}};
  for (const auto &l : kLevels) {
    if (name == l.name) {
      *priority = l.priority;
      return true;
    }
  }
  return false;
}

void RouteLibraryLog(int min_priority) {
  __android_log_set_logger(StderrLogger);
  __android_log_set_minimum_priority(min_priority);
}

}  // namespace qvn_tools
