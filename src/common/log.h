// Logging through the platform log.
//
// Host-interface lines go out at ERROR, calibration and fusion debug lines at
// DEBUG, always with a null tag, as the sensor service's log readers expect.
//
// Each line is written with the text printf would give its format and
// arguments, but formatted here (common/log_format.h: integer arithmetic
// only, exact for every float) into a stack buffer and handed to the log with
// one __android_log_write call. A phone writes the debug lines of every
// sample, and the C library's printf of floats was most of their cost.
//
// A line goes to the log exactly when __android_log_print would have written
// it (the same loggability question, asked before formatting), and the call
// returns what __android_log_print would have returned.
//
// The conversions are %d (int or narrower), %lld (long long), %f (float only:
// a double argument does not compile, as its text could differ) and %s, with
// no flags, widths or precisions; the macros reject any other conversion at
// compile time, and the format attribute still checks every argument.
#ifndef QVNLIB_COMMON_LOG_H
#define QVNLIB_COMMON_LOG_H

#include <android/log.h>
#include <stddef.h>
#include <string.h>

#include "common/log_format.h"

namespace qvn {

// Whether a line of this priority would be written at all. It is the very
// question __android_log_print asks of the log library (null tag, VERBOSE as
// the default), so a line guarded by it is written exactly when it would
// have been; the per-sample paths ask once for a group of lines instead of
// paying for the formatting of lines that a silenced log drops. Counters that
// pace periodic lines keep advancing either way.
inline bool LogOn(int priority) {
  return __android_log_is_loggable(priority, nullptr, ANDROID_LOG_VERBOSE) != 0;
}

inline bool DebugLogOn() { return LogOn(ANDROID_LOG_DEBUG); }

// The log library formats into 1024 bytes: a longer line is cut at 1023.
constexpr size_t kLogLineCapacity = 1024;

namespace log_detail {

enum class Kind : unsigned char { kInt, kLongLong, kFloat, kString };

// One argument of a line. Integers narrower than int promote to the int
// constructor; double and the unsigned and 64-bit types have no constructor
// that fits unambiguously and do not compile.
struct Arg {
  Arg(int v) : kind(Kind::kInt), i(v) {}             // NOLINT: implicit by design
  Arg(long long v) : kind(Kind::kLongLong), i(v) {}  // NOLINT
  Arg(float v) : kind(Kind::kFloat), f(v) {}         // NOLINT
  Arg(const char *v) : kind(Kind::kString), s(v) {}  // NOLINT
  Arg(double) = delete;

  Kind kind;
  union {
    long long i;
    float f;
    const char *s;
  };
};

// Appends to a buffer of fixed capacity, cutting as vsnprintf cuts.
class LineWriter {
 public:
  LineWriter(char *buf, size_t capacity) : p_(buf), end_(buf + capacity - 1) {}
  void Put(const char *s, size_t n) {
    const size_t room = static_cast<size_t>(end_ - p_);
    if (n > room) n = room;
    memcpy(p_, s, n);
    p_ += n;
  }
  void Put(const Arg &a) {
    constexpr size_t kNumberMaxLen = kFixed6MaxLen > kIntMaxLen ? kFixed6MaxLen : kIntMaxLen;
    if (a.kind != Kind::kString && static_cast<size_t>(end_ - p_) >= kNumberMaxLen) {
      // Room for any number: written in place (every line of the library).
      p_ = a.kind == Kind::kFloat ? FormatFixed6(a.f, p_) : FormatInt(a.i, p_);
      return;
    }
    char tmp[kNumberMaxLen];
    const char *s = tmp;
    size_t n = 0;
    switch (a.kind) {
      case Kind::kInt:
      case Kind::kLongLong:
        n = static_cast<size_t>(FormatInt(a.i, tmp) - tmp);
        break;
      case Kind::kFloat:
        n = static_cast<size_t>(FormatFixed6(a.f, tmp) - tmp);
        break;
      case Kind::kString:
        s = a.s != nullptr ? a.s : "(null)";  // what printf writes for it
        n = strlen(s);
        break;
    }
    Put(s, n);
  }
  // Terminates the line; returns its length.
  size_t Finish(char *buf) {
    *p_ = '\0';
    return static_cast<size_t>(p_ - buf);
  }

 private:
  char *p_;
  char *end_;
};

// Writes the text of format with args into buf (capacity >= 1, always NUL
// terminated); returns the length. Each conversion takes the next argument
// and writes it by the argument's own kind (the macros guarantee they agree);
// a conversion without an argument writes nothing.
inline size_t FormatLine(char *buf, size_t capacity, const char *format, const Arg *args,
                         size_t count) {
  LineWriter w(buf, capacity);
  size_t next = 0;
  const char *f = format;
  for (;;) {
    const char *run = f;
    while (*f != '\0' && *f != '%') ++f;
    w.Put(run, static_cast<size_t>(f - run));
    if (*f == '\0') break;
    ++f;  // the '%'
    if (*f == '%') {
      w.Put("%", 1);
      ++f;
      continue;
    }
    while (*f == 'l') ++f;
    if (*f == '\0') break;
    ++f;  // d, f or s
    if (next < count) w.Put(args[next++]);
  }
  return w.Finish(buf);
}

__attribute__((noinline)) inline int WriteLine(int priority, const char *format, const Arg *args,
                                               size_t count) {
  if (!LogOn(priority)) {
    // Not written: the log library's own answer for such a line.
    return __android_log_write(priority, nullptr, "");
  }
  char line[kLogLineCapacity];
  FormatLine(line, sizeof line, format, args, count);
  return __android_log_write(priority, nullptr, line);
}

// Never defined nor called: its format attribute makes the compiler check
// every line's arguments against its conversions.
__attribute__((format(printf, 1, 2))) int CheckedFormat(const char *format, ...);

// Whether format uses only the conversions FormatLine writes exactly.
constexpr bool PlainConversions(const char *format) {
  for (const char *f = format; *f != '\0'; ++f) {
    if (*f != '%') continue;
    ++f;
    if (*f == '%' || *f == 'd' || *f == 'f' || *f == 's') continue;
    if (f[0] == 'l' && f[1] == 'l' && f[2] == 'd') {
      f += 2;
      continue;
    }
    return false;
  }
  return true;
}

template <bool kPlain>
constexpr int RequirePlain() {
  static_assert(kPlain, "log lines use only %d, %lld, %f, %s and %%, without flags or widths");
  return 0;
}

}  // namespace log_detail

// Writes one line built from format and args at the given priority, null tag.
template <typename... A>
int LogLine(int priority, const char *format, const A &...args) {
  const log_detail::Arg list[sizeof...(A) + 1] = {args..., 0};
  return log_detail::WriteLine(priority, format, list, sizeof...(A));
}

}  // namespace qvn

#define QVN_LOG_FIRST_(first, ...) first
#define QVN_LOG_(priority, ...)                                                            \
  (static_cast<void>(sizeof(::qvn::log_detail::CheckedFormat(__VA_ARGS__))),               \
   static_cast<void>(::qvn::log_detail::RequirePlain< ::qvn::log_detail::PlainConversions( \
                         QVN_LOG_FIRST_(__VA_ARGS__, 0))>()),                              \
   ::qvn::LogLine(priority, __VA_ARGS__))

#define QVN_LOGE(...) QVN_LOG_(ANDROID_LOG_ERROR, __VA_ARGS__)
#define QVN_LOGD(...) QVN_LOG_(ANDROID_LOG_DEBUG, __VA_ARGS__)

#endif  // QVNLIB_COMMON_LOG_H
