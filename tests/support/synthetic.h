// Deterministic synthetic data for the tests: points on spheres and
// ellipsoids, a small LCG, and bit helpers. No standard-library
// distributions (they differ between implementations).
#ifndef QVNLIB_TESTS_SUPPORT_SYNTHETIC_H
#define QVNLIB_TESTS_SUPPORT_SYNTHETIC_H

#include <stdint.h>

#include <vector>

namespace qvn_test {

// 32-bit LCG (Numerical Recipes constants); Uniform() in [-1, 1).
class Lcg {
 public:
  explicit Lcg(uint32_t seed) : state_(seed) {}
  uint32_t Next();
  float Uniform();

 private:
  uint32_t state_;
};

struct Point3 {
  float x, y, z;
};

// n unit directions spread evenly over the sphere (Fibonacci lattice).
std::vector<Point3> FibonacciSphere(int n);

// Points c + diag(a, b, c) * u for the Fibonacci directions u: an
// axis-aligned ellipsoid with semi-axes (ax, ay, az) about (cx, cy, cz).
std::vector<Point3> EllipsoidPoints(int n, float ax, float ay, float az, float cx, float cy,
                                    float cz);

// Fills planar buffers x, y, z (capacity >= pts.size()).
void ToPlanes(const std::vector<Point3> &pts, float *x, float *y, float *z);

uint32_t Bits(float f);
float FromBits(uint32_t b);
// The n floats at a and b are the same bits (NaN payloads and zero signs too).
bool SameBits(const float *a, const float *b, int n);

}  // namespace qvn_test

#endif  // QVNLIB_TESTS_SUPPORT_SYNTHETIC_H
