// Private power-supply folder of a replay.
#include "replay/sysfs_folder.h"

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace qvn_tools {
namespace {

// Relative to the root, in creation order (removed in reverse).
const char *const kDirs[] = {"/sys",
                             "/sys/class",
                             "/sys/class/power_supply",
                             "/sys/class/power_supply/battery",
                             "/sys/class/power_supply/usb",
                             "/sys/class/power_supply/ac"};
const char *const kFiles[] = {
    "/sys/class/power_supply/battery/current_now", "/sys/class/power_supply/usb/charge_type",
    "/sys/class/power_supply/usb/online", "/sys/class/power_supply/ac/online"};

constexpr int kDirCount = sizeof kDirs / sizeof kDirs[0];
constexpr int kFileCount = sizeof kFiles / sizeof kFiles[0];
constexpr size_t kMaxPath = 512;

// Paths to remove if a signal ends the process (Ctrl-C, or a closed pipe when
// the output goes to `head`): prepared in advance, since a handler may only
// call async-signal-safe functions.
char g_cleanup[kFileCount + kDirCount + 1][kMaxPath];
volatile sig_atomic_t g_cleanup_ready = 0;

void RemoveAll() {
  for (auto &path : g_cleanup) {
    if (path[0] != '\0' && unlink(path) != 0) rmdir(path);
  }
}

void OnSignal(int sig) {
  if (g_cleanup_ready) RemoveAll();
  signal(sig, SIG_DFL);
  raise(sig);
}

void ArmCleanup(const std::string &root) {
  int k = 0;
  for (const char *f : kFiles) std::snprintf(g_cleanup[k++], kMaxPath, "%s%s", root.c_str(), f);
  for (int i = kDirCount - 1; i >= 0; --i) {
    std::snprintf(g_cleanup[k++], kMaxPath, "%s%s", root.c_str(), kDirs[i]);
  }
  std::snprintf(g_cleanup[k], kMaxPath, "%s", root.c_str());
  g_cleanup_ready = 1;
  for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) signal(sig, OnSignal);
}

bool WriteText(const std::string &path, const char *text, std::string *error) {
  FILE *f = std::fopen(path.c_str(), "w");
  if (f == nullptr || std::fputs(text, f) < 0 || std::fclose(f) != 0) {
    *error = "cannot write " + path + ": " + std::strerror(errno);
    return false;
  }
  return true;
}

}  // namespace

SysfsFolder::~SysfsFolder() {
  if (root_.empty()) return;
  g_cleanup_ready = 0;
  for (const char *f : kFiles) unlink((root_ + f).c_str());
  for (int i = kDirCount - 1; i >= 0; --i) rmdir((root_ + kDirs[i]).c_str());
  rmdir(root_.c_str());
}

bool SysfsFolder::Create(int64_t current, std::string *error) {
  const char *tmp = std::getenv("TMPDIR");
  std::string templ =
      std::string(tmp != nullptr && tmp[0] != '\0' ? tmp : "/tmp") + "/qvn_replay_sysfs.XXXXXX";
  if (mkdtemp(&templ[0]) == nullptr) {
    *error =
        "cannot create a folder for the power-supply files: " + std::string(std::strerror(errno));
    return false;
  }
  root_ = templ;
  ArmCleanup(root_);
  for (const char *d : kDirs) {
    if (mkdir((root_ + d).c_str(), 0755) != 0) {
      *error = "cannot create " + root_ + d + ": " + std::strerror(errno);
      return false;
    }
  }
  // A phone that is not charging: no USB or AC power, charge type 0.
  return SetCurrent(current, error) && WriteText(root_ + kFiles[1], "0\n", error) &&
         WriteText(root_ + kFiles[2], "0", error) && WriteText(root_ + kFiles[3], "0", error);
}

bool SysfsFolder::SetCurrent(int64_t current, std::string *error) {
  char text[32];
  std::snprintf(text, sizeof text, "%" PRId64 "\n", current);
  return WriteText(root_ + kFiles[0], text, error);
}

}  // namespace qvn_tools
