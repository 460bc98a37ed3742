// Numeric foundation: scalar wrappers, vector statistics and Gauss-Jordan
// inversion shared by calibration and fusion.
#ifndef QVNLIB_MATH_MATH_H
#define QVNLIB_MATH_MATH_H

#include "common/export.h"

QVN_EXPORT_BEGIN

// ---- scalar.cpp ----
float qvn_sqrt(float x);
float qvn_sin(float x);
float qvn_cos(float x);
float qvn_asin(float x);
float qvn_acos(float x);
float qvn_tan(float x);
float qvn_atan(float x);
float qvn_atan2(float y, float x);
float qvn_cbrt(float base);
float normalize_angle(float a);

// ---- vector_stats.cpp ----
int16_t sensor_data_normalize(float out[3], const float in[3]);
float sensor_data_stdev(const float *data, int16_t n);

// ---- inverse_matrix.cpp ----
int16_t inverse_matrix(const float in[81], float out[81], uint8_t n);

QVN_EXPORT_END

#endif  // QVNLIB_MATH_MATH_H
