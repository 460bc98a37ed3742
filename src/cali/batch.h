// Bounds of the planar sample batch and the admission step shared by the
// magnetometer-only methods (library-internal, not exported).
//
// dsc_data_size and dsc_data_num are host-visible variables: a host can write
// anything into them. Every index into the 300-sample planes goes through
// these helpers, so no value reaches past the planes.
#ifndef QVNLIB_CALI_BATCH_H
#define QVNLIB_CALI_BATCH_H

#include "cali/cali.h"

namespace qvn {

// A count bounded to the planes: 0..300.
inline int16_t BatchCount(int n) {
  return static_cast<int16_t>(n < 0 ? 0 : (n > QVN_BATCH_CAPACITY ? QVN_BATCH_CAPACITY : n));
}

// The slot for the next sample; a count pushed outside the planes writes into
// the nearest end instead of past it (the count itself still advances, so the
// batch-full test behaves as designed).
inline int16_t BatchWriteSlot(int n) {
  return static_cast<int16_t>(n < 0 ? 0 : (n >= QVN_BATCH_CAPACITY ? QVN_BATCH_CAPACITY - 1 : n));
}

// Admission and append of the ball and oval methods: the distance test, the
// rejection counter that empties the batch after too many rejections in a
// row, and the write of an admitted sample. True when the sample was stored.
bool AdmitAndAppend(const float mag[3]);

}  // namespace qvn

#endif  // QVNLIB_CALI_BATCH_H
