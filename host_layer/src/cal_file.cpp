// Reading and writing the calibration file.
#include "cal_file.h"

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <cmath>

namespace qvn_layer {
namespace {

constexpr char kMagic[] = "qvnlib-calibration ";
constexpr int kVersion = 1;
constexpr size_t kMaxFile = 16384;  // far above the largest file the writer makes

// The buffers are static: one calling thread, and nothing allocated on the
// sample path (an automatic save runs from it).
char g_text[kMaxFile + 1];

uint32_t Crc(const char *text, size_t n) {
  return static_cast<uint32_t>(crc32(0L, reinterpret_cast<const Bytef *>(text), static_cast<uInt>(n)));
}

int Hex(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

// Parses the body (every line before the checksum). Returns false with the
// reason in message.
bool ParseBody(char *body, float offset_limit, TunableCheck check, void *context, Calibration *cal,
               char *message, size_t message_size) {
  int line_no = 1;
  bool seen_offset = false, seen_accuracy = false;
  char *save = nullptr;
  strtok_r(body, "\n", &save);  // the magic line, checked already
  for (char *line = strtok_r(nullptr, "\n", &save); line != nullptr;
       line = strtok_r(nullptr, "\n", &save)) {
    ++line_no;
    char name[kMaxNameLength + 2];
    char hex[2 * kMaxTunableBytes + 2];
    float x, y, z;
    int accuracy, used = 0;
    unsigned long offset;
    if (sscanf(line, "offset %f %f %f%n", &x, &y, &z, &used) == 3 && line[used] == '\0') {
      if (!std::isfinite(x) || !std::isfinite(y) || !std::isfinite(z) ||
          std::fabs(x) > offset_limit || std::fabs(y) > offset_limit ||
          std::fabs(z) > offset_limit) {
        Say(message, message_size, "line %d: the offset is not finite or beyond %g uT", line_no,
            static_cast<double>(offset_limit));
        return false;
      }
      cal->offset[0] = x;
      cal->offset[1] = y;
      cal->offset[2] = z;
      seen_offset = true;
    } else if (sscanf(line, "accuracy %d%n", &accuracy, &used) == 1 && line[used] == '\0') {
      if (accuracy < 0 || accuracy > 3) {
        Say(message, message_size, "line %d: accuracy %d is outside 0..3", line_no, accuracy);
        return false;
      }
      cal->accuracy = static_cast<int16_t>(accuracy);
      seen_accuracy = true;
    } else if (sscanf(line, "tunable %64s %lu %17s%n", name, &offset, hex, &used) == 3 &&
               line[used] == '\0') {
      size_t digits = strlen(hex);
      if (strlen(name) > kMaxNameLength || digits == 0 || digits % 2 != 0 ||
          digits > 2 * kMaxTunableBytes || offset > 0xffffu) {
        Say(message, message_size, "line %d: malformed tunable write", line_no);
        return false;
      }
      if (cal->tunable_count == kMaxTunables) {
        Say(message, message_size, "line %d: more than %zu tunable writes", line_no, kMaxTunables);
        return false;
      }
      TunableWrite &w = cal->tunables[cal->tunable_count];
      for (size_t i = 0; i < digits / 2; ++i) {
        int hi = Hex(hex[2 * i]), lo = Hex(hex[2 * i + 1]);
        if (hi < 0 || lo < 0) {
          Say(message, message_size, "line %d: malformed tunable bytes", line_no);
          return false;
        }
        w.bytes[i] = static_cast<unsigned char>(hi * 16 + lo);
      }
      w.offset = static_cast<uint32_t>(offset);
      w.size = static_cast<uint32_t>(digits / 2);
      const size_t name_len = strnlen(name, sizeof w.name - 1);  // cut as a bounded copy would
      memcpy(w.name, name, name_len);
      w.name[name_len] = '\0';
      if (check != nullptr && !check(w.name, w.offset, w.size, context)) {
        Say(message, message_size,
            "line %d: '%s' bytes %u..%u are not inside a variable this library exports", line_no,
            w.name, w.offset, w.offset + w.size - 1);
        return false;
      }
      cal->tunable_count++;
    } else {
      Say(message, message_size, "line %d: not a line of a calibration file", line_no);
      return false;
    }
  }
  if (!seen_offset || !seen_accuracy) {
    Say(message, message_size, "the %s line is missing", seen_offset ? "accuracy" : "offset");
    return false;
  }
  cal->has_offset = true;
  return true;
}

}  // namespace

void Say(char *message, size_t size, const char *format, ...) {
  if (message == nullptr || size == 0) return;
  va_list args;
  va_start(args, format);
  vsnprintf(message, size, format, args);
  va_end(args);
}

int ReadCalibration(const char *path, float offset_limit, TunableCheck check, void *context,
                    Calibration *cal, char *message, size_t message_size) {
  *cal = Calibration();
  int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    if (errno == ENOENT) {
      Say(message, message_size, "no calibration file %s yet", path);
      return 0;
    }
    Say(message, message_size, "%s: cannot open: %s", path, strerror(errno));
    return -1;
  }
  size_t n = 0;
  bool too_large = false;
  for (;;) {
    ssize_t got = read(fd, g_text + n, kMaxFile + 1 - n);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) {
      Say(message, message_size, "%s: cannot read: %s", path, strerror(errno));
      close(fd);
      return -1;
    }
    if (got == 0) break;
    n += static_cast<size_t>(got);
    if (n > kMaxFile) {
      too_large = true;
      break;
    }
  }
  close(fd);
  g_text[n < kMaxFile ? n : kMaxFile] = '\0';
  const size_t magic_len = sizeof kMagic - 1;
  if (n == 0) {
    Say(message, message_size, "%s is refused: it is empty (truncated)", path);
    return -1;
  }
  if (n < magic_len ? memcmp(g_text, kMagic, n) != 0 : memcmp(g_text, kMagic, magic_len) != 0) {
    Say(message, message_size, "%s is refused: not a calibration file of this library", path);
    return -1;
  }
  if (too_large) {
    Say(message, message_size, "%s is refused: larger than %zu bytes", path, kMaxFile);
    return -1;
  }
  if (memchr(g_text, '\0', n) != nullptr) {
    Say(message, message_size, "%s is refused: it holds a NUL byte (corrupt)", path);
    return -1;
  }
  int version = 0, used = 0;
  if (sscanf(g_text + magic_len, "%d%n", &version, &used) != 1 || version != kVersion) {
    Say(message, message_size, "%s is refused: format version %.*s, this library reads %d", path,
        8, g_text + magic_len, kVersion);
    return -1;
  }
  // The checksum line is the last one and ends with a newline; anything
  // short of that is a file cut off while it was written.
  char *last = nullptr;
  if (n >= 2 && g_text[n - 1] == '\n') {
    g_text[n - 1] = '\0';
    char *nl = strrchr(g_text, '\n');
    g_text[n - 1] = '\n';
    last = nl != nullptr ? nl + 1 : nullptr;
  }
  unsigned long stored = 0;
  int end = 0;
  if (last == nullptr || sscanf(last, "checksum %8lx%n", &stored, &end) != 1 || last[end] != '\n' ||
      end != 17) {
    Say(message, message_size, "%s is refused: truncated (no checksum line at its end)", path);
    return -1;
  }
  size_t body_len = static_cast<size_t>(last - g_text);
  uint32_t crc = Crc(g_text, body_len);
  if (crc != static_cast<uint32_t>(stored)) {
    Say(message, message_size, "%s is refused: corrupt (checksum %08lx, contents give %08x)", path,
        stored, crc);
    return -1;
  }
  g_text[body_len] = '\0';
  char reason[128];
  if (!ParseBody(g_text, offset_limit, check, context, cal, reason, sizeof reason)) {
    Say(message, message_size, "%s is refused: %s", path, reason);
    *cal = Calibration();
    return -1;
  }
  Say(message, message_size, "loaded %s: offset %g %g %g uT, accuracy %d, %zu tunable writes",
      path, static_cast<double>(cal->offset[0]), static_cast<double>(cal->offset[1]),
      static_cast<double>(cal->offset[2]), cal->accuracy, cal->tunable_count);
  return 1;
}

bool WriteCalibration(const char *path, const Calibration &cal, char *message,
                      size_t message_size) {
  size_t n = 0;
  auto put = [&](const char *format, ...) {
    if (n >= kMaxFile) return;
    va_list args;
    va_start(args, format);
    int w = vsnprintf(g_text + n, kMaxFile - n, format, args);
    va_end(args);
    n = w < 0 ? kMaxFile : n + static_cast<size_t>(w);
  };
  put("%s%d\n", kMagic, kVersion);
  // %.9g gives back every float32 bit for bit.
  put("offset %.9g %.9g %.9g\n", static_cast<double>(cal.offset[0]),
      static_cast<double>(cal.offset[1]), static_cast<double>(cal.offset[2]));
  put("accuracy %d\n", cal.accuracy);
  for (size_t i = 0; i < cal.tunable_count; ++i) {
    const TunableWrite &w = cal.tunables[i];
    put("tunable %s %u ", w.name, w.offset);
    for (uint32_t b = 0; b < w.size; ++b) put("%02x", w.bytes[b]);
    put("\n");
  }
  if (n + 20 >= kMaxFile) {
    Say(message, message_size, "%s: the calibration does not fit the file format", path);
    return false;
  }
  put("checksum %08x\n", Crc(g_text, n));

  char tmp[4096];
  if (snprintf(tmp, sizeof tmp, "%s.tmp.XXXXXX", path) >= static_cast<int>(sizeof tmp)) {
    Say(message, message_size, "%s: path too long", path);
    return false;
  }
  int fd = mkstemp(tmp);
  if (fd < 0) {
    Say(message, message_size, "cannot create %s: %s", tmp, strerror(errno));
    return false;
  }
  fchmod(fd, 0600);
  size_t done = 0;
  while (done < n) {
    ssize_t w = write(fd, g_text + done, n - done);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) break;
    done += static_cast<size_t>(w);
  }
  bool ok = done == n && fsync(fd) == 0;
  int saved_errno = errno;
  ok = close(fd) == 0 && ok;
  if (!ok || rename(tmp, path) != 0) {
    if (ok) saved_errno = errno;
    unlink(tmp);
    Say(message, message_size, "cannot write %s: %s", path, strerror(saved_errno));
    return false;
  }
  // The rename itself is made durable by syncing the folder.
  char dir[4096];
  snprintf(dir, sizeof dir, "%s", path);
  char *slash = strrchr(dir, '/');
  if (slash == dir) {
    slash[1] = '\0';
  } else if (slash != nullptr) {
    *slash = '\0';
  } else {
    snprintf(dir, sizeof dir, ".");
  }
  int dfd = open(dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dfd >= 0) {
    fsync(dfd);
    close(dfd);
  }
  Say(message, message_size, "saved %s", path);
  return true;
}

}  // namespace qvn_layer
