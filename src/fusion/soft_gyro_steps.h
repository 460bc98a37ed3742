// Steps shared by the two soft-gyroscope variants (soft_gyro.cpp and
// soft_gyro_debounced.cpp). Internal to the library: declared outside the
// export block, so the names stay hidden in the shared object.
//
// Both variants run, in order: StartStep, their own smoothing, WriteBack,
// FilterAndAttitude, their own angle handling with LimitRate, then
// FinishOutputs. All of it works on the soft-gyroscope state in fusion.h.
#ifndef QVNLIB_FUSION_SOFT_GYRO_STEPS_H
#define QVNLIB_FUSION_SOFT_GYRO_STEPS_H

#include "fusion/fusion.h"

namespace qvn {
namespace softgyro {

// Number of accelerometer/magnetometer estimates seeded after a reset.
constexpr int16_t kSeedSamples = 3;

// Refuses a non-positive dt, restarts the seeding after a gap, and runs the
// two scalar Kalman filters into kmf_acc and kmf_mag. False: return 0.
bool StartStep(const Vec3f &acc, const Vec3f &mag, float dt);

// Copies the smoothed zdb_acc_pre / zdb_mag_pre into the caller's vectors.
void WriteBack(Vec3f *acc, Vec3f *mag);

// Median and mean filters, unit vectors, attitude matrix BRM_dev, its change
// BRM against the previous attitude, and the three angles of that change in
// theta (rad per step). With reject_zero_mag_unit, a magnetic unit vector
// that comes out all zero is refused as well. False: return 0.
bool FilterAndAttitude(const Vec3f &acc, const Vec3f &mag, bool reject_zero_mag_unit,
                       float theta[3]);

// Quadratic squash of rates inside the dead band and the 2000 deg/s clamp.
float LimitRate(float rate);

// Rotation vector, gravity and linear acceleration from BRM_dev, the z-rate
// carry and the sanity limit. acc is the smoothed vector from WriteBack.
// Returns the variant's result, 1 or 0.
int16_t FinishOutputs(const Vec3f &acc, float gyr[3], float rov[4], float gra[3], float lin[3]);

// Length of the moving state, two seconds of samples, as a 16-bit product.
int16_t MovingStateSteps();

}  // namespace softgyro
}  // namespace qvn

#endif  // QVNLIB_FUSION_SOFT_GYRO_STEPS_H
