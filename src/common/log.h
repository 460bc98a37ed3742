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

#endif  // QVNLIB_COMMON_LOG_H
