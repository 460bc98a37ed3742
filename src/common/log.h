// Logging through the platform log.
//
// Host-interface lines go out at ERROR, calibration and fusion debug lines at
// DEBUG, always with a null tag, as the sensor service's log readers expect.
// The format attribute of __android_log_print checks every call site.
#ifndef QVNLIB_COMMON_LOG_H
#define QVNLIB_COMMON_LOG_H

#include <android/log.h>

#define QVN_LOGE(...) __android_log_print(ANDROID_LOG_ERROR, nullptr, __VA_ARGS__)
#define QVN_LOGD(...) __android_log_print(ANDROID_LOG_DEBUG, nullptr, __VA_ARGS__)

namespace qvn {

// Whether a line of this priority would be written at all. It is the very
// question __android_log_print asks of the log library before it formats
// (null tag, VERBOSE as the default), so a line guarded by it is written
// exactly when it would have been; the per-sample paths ask once for a
// group of lines instead of paying a call per line to a silenced log.
// Counters that pace periodic lines keep advancing either way.
inline bool LogOn(int priority) {
  return __android_log_is_loggable(priority, nullptr, ANDROID_LOG_VERBOSE) != 0;
}

inline bool DebugLogOn() { return LogOn(ANDROID_LOG_DEBUG); }

}  // namespace qvn

#endif  // QVNLIB_COMMON_LOG_H
