#include "support/synthetic.h"

#include <math.h>
#include <string.h>

namespace qvn_test {

uint32_t Lcg::Next() {
  state_ = state_ * 1664525u + 1013904223u;
  return state_;
}

float Lcg::Uniform() { return static_cast<float>(Next() >> 8) / 8388608.0f - 1.0f; }

std::vector<Point3> FibonacciSphere(int n) {
  std::vector<Point3> pts;
  pts.reserve(static_cast<size_t>(n));
  const double golden = 3.14159265358979323846 * (3.0 - sqrt(5.0));
  for (int i = 0; i < n; ++i) {
    const double z = 1.0 - (2.0 * i + 1.0) / n;
    const double r = sqrt(1.0 - z * z);
    const double t = golden * i;
    pts.push_back(Point3{static_cast<float>(r * cos(t)), static_cast<float>(r * sin(t)),
                         static_cast<float>(z)});
  }
  return pts;
}

std::vector<Point3> EllipsoidPoints(int n, float ax, float ay, float az, float cx, float cy,
                                    float cz) {
  std::vector<Point3> pts = FibonacciSphere(n);
  for (Point3 &p : pts) {
    p.x = cx + ax * p.x;
    p.y = cy + ay * p.y;
    p.z = cz + az * p.z;
  }
  return pts;
}

void ToPlanes(const std::vector<Point3> &pts, float *x, float *y, float *z) {
  for (size_t i = 0; i < pts.size(); ++i) {
    x[i] = pts[i].x;
    y[i] = pts[i].y;
    z[i] = pts[i].z;
  }
}

uint32_t Bits(float f) {
  uint32_t b;
  memcpy(&b, &f, sizeof b);
  return b;
}

float FromBits(uint32_t b) {
  float f;
  memcpy(&f, &b, sizeof f);
  return f;
}

bool SameBits(const float *a, const float *b, int n) {
  return memcmp(a, b, sizeof(float) * static_cast<size_t>(n)) == 0;
}

}  // namespace qvn_test
