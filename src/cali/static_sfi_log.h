// The three debug lines that print the device soft-iron matrix. Written at
// initialisation and periodically by the calibration driver, with the same
// text in both places so log readers can match them.
#ifndef QVNLIB_CALI_STATIC_SFI_LOG_H
#define QVNLIB_CALI_STATIC_SFI_LOG_H

#include "cali/cali.h"
#include "common/log.h"

namespace qvn {

inline void LogStaticSfi() {
  if (!DebugLogOn()) return;
  QVN_LOGD("QVNlib: static_sfi(0-2): %f,%f,%f\r\n", static_sfi[0], static_sfi[1], static_sfi[2]);
  QVN_LOGD("QVNlib: static_sfi(3-5): %f,%f,%f\r\n", static_sfi[3], static_sfi[4], static_sfi[5]);
  QVN_LOGD("QVNlib: static_sfi(6-8): %f,%f,%f\r\n", static_sfi[6], static_sfi[7], static_sfi[8]);
}

}  // namespace qvn

#endif  // QVNLIB_CALI_STATIC_SFI_LOG_H
