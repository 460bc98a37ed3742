// A private power-supply folder for one replay, so that the workstation's own
// battery never leaks into the charging compensation of a replayed recording.
#ifndef QVNLIB_TOOLS_REPLAY_SYSFS_FOLDER_H
#define QVNLIB_TOOLS_REPLAY_SYSFS_FOLDER_H

#include <cstdint>
#include <string>

namespace qvn_tools {

class SysfsFolder {
 public:
  SysfsFolder() = default;
  SysfsFolder(const SysfsFolder &) = delete;
  SysfsFolder &operator=(const SysfsFolder &) = delete;
  ~SysfsFolder();  // removes the folder and its files

  // Creates <tmp>/qvn_replay_sysfs.XXXXXX/sys/class/power_supply/... with a
  // battery current of `current` and nothing plugged in.
  bool Create(int64_t current, std::string *error);
  // Rewrites battery/current_now (the library reads it on every sample).
  bool SetCurrent(int64_t current, std::string *error);
  const std::string &root() const { return root_; }

 private:
  std::string root_;
};

}  // namespace qvn_tools

#endif  // QVNLIB_TOOLS_REPLAY_SYSFS_FOLDER_H
