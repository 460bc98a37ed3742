// Safe output files: regular files only, replaced atomically.
#include "core/output_file.h"

#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace qvn_tools {
namespace {

const char *KindOf(mode_t m) {
  if (S_ISDIR(m)) return "a directory";
  if (S_ISCHR(m)) return "a character device";
  if (S_ISBLK(m)) return "a block device";
  if (S_ISFIFO(m)) return "a FIFO";
  if (S_ISSOCK(m)) return "a socket";
  return "not a regular file";
}

std::string Folder(const std::string &path) {
  size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace

bool CheckOutputPath(const std::string &path, std::string *target, std::string *error) {
  const std::string refuse = "cannot write " + path + ": ";
  if (path.empty() || path.back() == '/') {
    *error = refuse + "not a file name";
    return false;
  }
  struct stat link;
  if (lstat(path.c_str(), &link) != 0) {
    if (errno != ENOENT) {
      *error = refuse + std::strerror(errno);
      return false;
    }
    // A new file: its folder must exist.
    struct stat dir;
    const std::string folder = Folder(path);
    if (stat(folder.c_str(), &dir) != 0 || !S_ISDIR(dir.st_mode)) {
      *error = refuse + "the folder " + folder + " does not exist";
      return false;
    }
    *target = path;
    return true;
  }
  struct stat st;
  if (stat(path.c_str(), &st) != 0) {
    *error = refuse + "a symbolic link to nothing (" + std::strerror(errno) + ")";
    return false;
  }
  if (!S_ISREG(st.st_mode)) {
    *error = refuse + "it is " + KindOf(st.st_mode) + (S_ISLNK(link.st_mode) ? " (through a symbolic link)" : "") +
             "; outputs go only to regular files, new or existing";
    return false;
  }
  if (S_ISLNK(link.st_mode)) {
    char resolved[PATH_MAX];
    if (realpath(path.c_str(), resolved) == nullptr) {
      *error = refuse + std::strerror(errno);
      return false;
    }
    *target = resolved;
  } else {
    *target = path;
  }
  return true;
}

bool OutputFile::Open(const std::string &path, std::string *error) {
  Discard();
  path_ = path;
  if (!CheckOutputPath(path, &target_, error)) return false;
  tmp_ = target_ + ".partial.XXXXXX";
  int fd = mkstemp(&tmp_[0]);
  if (fd < 0) {
    *error = "cannot write " + path + ": cannot create a file in " + Folder(target_) + ": " +
             std::strerror(errno);
    tmp_.clear();
    return false;
  }
  // mkstemp makes the file private; the result is an ordinary file (or keeps
  // the mode of the one it replaces).
  struct stat st;
  mode_t mode = 0666;
  if (stat(target_.c_str(), &st) == 0) {
    mode = st.st_mode & 07777;
  } else {
    mode_t mask = umask(0);
    umask(mask);
    mode &= ~mask;
  }
  fchmod(fd, mode);
  file_ = fdopen(fd, "w");
  if (file_ == nullptr) {
    *error = "cannot write " + path + ": " + std::strerror(errno);
    close(fd);
    Discard();
    return false;
  }
  return true;
}

bool OutputFile::Commit(std::string *error) {
  if (file_ == nullptr) {
    *error = "cannot write " + path_ + ": not open";
    return false;
  }
  bool ok = std::ferror(file_) == 0;
  ok = (std::fclose(file_) == 0) && ok;
  file_ = nullptr;
  // The target may have been swapped for something else meanwhile: check again.
  std::string target;
  if (ok && !CheckOutputPath(path_, &target, error)) {
    Discard();
    return false;
  }
  if (!ok || std::rename(tmp_.c_str(), target_.c_str()) != 0) {
    *error = "cannot write " + path_ + ": " + std::strerror(errno);
    Discard();
    return false;
  }
  tmp_.clear();
  return true;
}

void OutputFile::Discard() {
  if (file_ != nullptr) std::fclose(file_);
  file_ = nullptr;
  if (!tmp_.empty()) unlink(tmp_.c_str());
  tmp_.clear();
}

}  // namespace qvn_tools
