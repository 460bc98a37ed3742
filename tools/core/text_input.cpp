// Bounded line reading and readable quoting.
#include "core/text_input.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace qvn_tools {
namespace {

constexpr size_t kBufferBytes = 1 << 20;
constexpr char kBom[] = "\xEF\xBB\xBF";

}  // namespace

LineReader::~LineReader() {
  if (fd_ >= 0) close(fd_);
}

bool LineReader::Open(const std::string &path, std::string *error) {
  name_ = path;
  fd_ = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat st;
  if (fd_ < 0 || fstat(fd_, &st) != 0) {
    *error = path + ": cannot open the file: " + std::strerror(errno);
    return false;
  }
  if (S_ISDIR(st.st_mode)) {
    *error = path + ": is a directory, not a file";
    return false;
  }
  size_ = S_ISREG(st.st_mode) ? static_cast<uint64_t>(st.st_size) : 0;
  buf_.resize(kBufferBytes);
  return true;
}

void LineReader::OpenMemory(const char *data, size_t size, const std::string &name) {
  name_ = name;
  mem_ = data;
  size_ = size;
  end_ = size;
  eof_ = true;
}

std::string LineReader::Where() const { return name_ + ":" + std::to_string(line_) + ": "; }

bool LineReader::Fill() {
  // Keeps the unfinished line at the front and reads behind it.
  if (pos_ > 0) {
    std::memmove(buf_.data(), buf_.data() + pos_, end_ - pos_);
    end_ -= pos_;
    pos_ = 0;
  }
  while (end_ < buf_.size()) {
    ssize_t n = read(fd_, buf_.data() + end_, buf_.size() - end_);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      error_ = name_ + ": read error: " + std::strerror(errno);
      return false;
    }
    if (n == 0) {
      eof_ = true;
      break;
    }
    end_ += static_cast<size_t>(n);
    break;
  }
  return true;
}

bool LineReader::Next(std::string_view *line) {
  if (!error_.empty()) return false;
  const char *base = mem_ != nullptr ? mem_ : buf_.data();
  while (true) {
    base = mem_ != nullptr ? mem_ : buf_.data();
    const void *nl = std::memchr(base + pos_, '\n', end_ - pos_);
    size_t len = nl != nullptr ? static_cast<size_t>(static_cast<const char *>(nl) - (base + pos_))
                               : end_ - pos_;
    if (len > kMaxLineBytes) {
      ++line_;
      error_ = Where() + "line longer than " + std::to_string(kMaxLineBytes) +
               " bytes (is this the right file?)";
      return false;
    }
    if (nl != nullptr || (eof_ && len > 0)) {
      std::string_view s(base + pos_, len);
      pos_ += len + (nl != nullptr ? 1 : 0);
      consumed_ += len + (nl != nullptr ? 1 : 0);
      if (!s.empty() && s.back() == '\r') s.remove_suffix(1);
      if (++line_ == 1 && s.substr(0, 3) == kBom) s.remove_prefix(3);
      *line = s;
      return true;
    }
    if (eof_) return false;
    if (!Fill()) return false;
  }
}

std::string Quoted(std::string_view s, size_t max_chars) {
  std::string q = "'";
  size_t shown = 0;
  for (unsigned char c : s) {
    if (shown == max_chars) break;
    if (c >= 0x20 && c < 0x7f) {
      q += static_cast<char>(c);
    } else {
      char hex[8];
      std::snprintf(hex, sizeof hex, "\\x%02X", c);
      q += hex;
    }
    ++shown;
  }
  q += "'";
  if (shown < s.size()) q += "... (" + std::to_string(s.size()) + " bytes)";
  return q;
}

}  // namespace qvn_tools
