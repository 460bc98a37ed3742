// The library's orientation outputs as phone-to-world rotations, and the
// split of an attitude error into a heading part and a tilt part.
//
// World frame: east, north, up (the reference frame of the fusion quaternion,
// whose magnetic correction drives the east component of the field to zero).
// Angles in degrees as the library reports them. Rotations compose right to
// left onto phone coordinates: v_world = R v_phone, Rz(t) turning
// counter-clockwise seen from above.
//
//   gyroscope path (quaternion2euler):  R = Rz(-azimuth) Ry(-roll) Rx(-pitch),
//     roll = asin(R20) in [-90, 90], pitch = -atan2(R21, R22) in (-180, 180]
//   compass path (no gyroscope):        R = Rz(-azimuth) L(pitch, roll), where L
//     levels the phone about y by the roll first, then about x by the pitch
//     (face up, |pitch| <= 90); face down (|pitch| > 90) it has its own rows and
//     the driver's fold subtracts 180 from the azimuth while 90 < |pitch| < 140
//   rotation vectors:                   (x, y, z, w) of the phone-to-world
//     quaternion; the geomagnetic entry hands over x, y, z only (w >= 0 rebuilt)
//   Euler rotation vector (g_enable_softGyro_rv = 2): qz(+azimuth) qy(-roll)
//     qx(-pitch): its azimuth turns the other way
#ifndef QVNLIB_TOOLS_CORE_ATTITUDE_H
#define QVNLIB_TOOLS_CORE_ATTITUDE_H

#include "core/geometry.h"

namespace qvn_tools {

// Orientation output (azimuth, pitch, roll in degrees) of the gyroscope path.
Quat FromGyroPathAngles(double azimuth, double pitch, double roll);

// Orientation output of the no-gyroscope (compass) path, undoing the pitch fold.
Quat FromCompassPathAngles(double azimuth, double pitch, double roll);

// The Euler rotation vector's convention, for checking it against the angles.
Quat EulerRotationVector(double azimuth, double pitch, double roll);

// Rotation vector values x, y, z, w.
Quat FromRotationVector(const float v[4]);

// Geomagnetic entry values x, y, z; w = sqrt(1 - |v|^2), taken as 0 if negative.
Quat FromRotationVector3(const float v[3]);

// Heading and tilt parts of the error rotation E = est * truth^-1 (world frame),
// split as E = Rz(twist) * S with S about a horizontal axis. heading_deg is
// positive clockwise seen from above, like an azimuth, in (-180, 180]; tilt_deg
// is the angle of S in [0, 180], equal to the angle between the true and the
// estimated vertical seen from the phone. A constant yaw offset of the
// estimate changes heading_deg only.
void HeadingTiltError(Quat est, Quat truth, double *heading_deg, double *tilt_deg);

}  // namespace qvn_tools

#endif  // QVNLIB_TOOLS_CORE_ATTITUDE_H
