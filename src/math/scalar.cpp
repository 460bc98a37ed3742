// Scalar helpers on which every numeric routine of the library rests.
//
// The trigonometric and power wrappers widen to double, call libm once and
// round once back to float; only the square root stays in single precision.
// None of them guards its domain: asin(2) is NaN, cbrt(-8) is NaN, and the
// callers' own plausibility checks deal with that.
#include <math.h>

#include "math/convert.h"
#include "math/math.h"

namespace {
// The double nearest one third. The cube root is a power with this exponent,
// so a negative base gives NaN and perfect cubes may miss by one ulp.
constexpr double kOneThird = 0.3333333333333333;
}  // namespace

float qvn_sqrt(float x) { return sqrtf(x); }
float qvn_sin(float x) { return static_cast<float>(sin(static_cast<double>(x))); }
float qvn_cos(float x) { return static_cast<float>(cos(static_cast<double>(x))); }
float qvn_asin(float x) { return static_cast<float>(asin(static_cast<double>(x))); }
float qvn_acos(float x) { return static_cast<float>(acos(static_cast<double>(x))); }
float qvn_tan(float x) { return static_cast<float>(tan(static_cast<double>(x))); }
float qvn_atan(float x) { return static_cast<float>(atan(static_cast<double>(x))); }

float qvn_atan2(float y, float x) {
  return static_cast<float>(atan2(static_cast<double>(y), static_cast<double>(x)));
}

float qvn_cbrt(float base) {
  return static_cast<float>(pow(static_cast<double>(base), kOneThird));
}

// Wraps a into [-pi, pi] with the library's eleven-decimal pi. The bound test
// is in double, so the float nearest pi (slightly above the bound) wraps.
float normalize_angle(float a) {
  const double ad = static_cast<double>(a);
  if (ad >= -qvn::kPi && ad <= qvn::kPi) return a;
  const float s = (a < 0.0f) ? -1.0f : 1.0f;
  const float m = fabsf(a);
  const int32_t k = qvn::TruncToI32(static_cast<double>(m) / qvn::kTwoPi);
  float r = static_cast<float>(static_cast<double>(m) - static_cast<double>(2 * static_cast<int64_t>(k)) * qvn::kPi);
  if (static_cast<double>(r) > qvn::kPi) r = static_cast<float>(static_cast<double>(r) - qvn::kTwoPi);
  return s * r;
}
