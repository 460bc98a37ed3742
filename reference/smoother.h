// Attitude over a whole recording: an error-state Kalman filter run forwards
// at a fixed step, then a Rauch-Tung-Striebel pass backwards.
//
// State (nominal): q phone->world (east, north, up), gyroscope bias b
// (rad/s, phone frame), velocity v (m/s, world). Error state (9): attitude
// error dtheta in the world frame (q_true = Exp(dtheta) q), db, dv.
//
// Between steps the gyroscope and accelerometer samples are integrated in the
// phone frame of the step's start (zero-order hold of the latest sample):
//   dR = prod Exp((w - b) dt),  J = sum dR dt,  dV = sum dR a dt
//   q' = q dR,  v' = v + R dV - g_up T,  b' = b
//   dtheta' = dtheta - R J db,   dv' = dv - [R dV]x dtheta
// Measurements (each optional, per step):
//   - velocity pseudo-measurement v = 0 with a wide sigma: the phone moves
//     but goes nowhere fast, so the mean specific force in the world frame
//     over seconds is gravity; a tilt error makes the integrated velocity run
//     away at g * tilt. Much tighter (zero velocity) where the phone is still.
//   - gyroscope bias where the phone is still: mean rate = b.
//   - heading of the calibrated field: the field seen in the world frame
//     points north, atan2(east, north) = 0 (heading only, so neither the dip
//     nor the field strength enters the attitude).
// The smoother stores, per step, the filtered and the predicted state and
// covariance and the transition matrix: about 2 kB a step.
#ifndef QVNLIB_REFERENCE_SMOOTHER_H
#define QVNLIB_REFERENCE_SMOOTHER_H

#include <Eigen/Dense>
#include <Eigen/Geometry>
#include <cstdint>
#include <vector>

namespace qvn_reference {

struct TimedVec {
  int64_t t_ns;
  Eigen::Vector3d v;
};

struct SmootherOptions {
  double step_s = 0.1;
  double gyro_noise = 0.004;           // rad/s/sqrt(Hz): angle random walk
  double bias_walk = 3e-4;             // rad/s^2/sqrt(Hz): bias random walk
  double accel_noise = 0.3;            // m/s^2/sqrt(Hz): specific force not modelled
  double velocity_sigma_h = 2.0;       // m/s: horizontal pseudo-measurement
  double velocity_sigma_v = 0.6;       // m/s: vertical pseudo-measurement
  double velocity_every_s = 1.0;       // its interval (its errors are correlated)
  double still_velocity_sigma = 0.02;  // m/s where still
  // The calibrated field's heading: 4 degrees a look, but its errors (the
  // calibration's residual, which follows the phone's orientation, and slow
  // disturbances) stay alike for about heading_correlation_s. Taken as
  // independent at every step, they outweighed gravity and pulled the tilt
  // by degrees; each step gets sigma * sqrt(correlation / step) instead.
  double heading_sigma_deg = 4.0;
  double heading_correlation_s = 10.0;
  // Accelerometer as a direction of gravity, per step (m/s^2 of the step's
  // mean specific force; 0 = not used): an alternative to the velocity.
  double gravity_sigma = 0;
  double initial_tilt_sigma_deg = 20;
  double initial_heading_sigma_deg = 180;
  double initial_bias_sigma = 0.1;      // rad/s
  double initial_velocity_sigma = 2.0;  // m/s
  double gravity = 9.81;                // m/s^2, magnitude as the accelerometer reads it
};

// Per step inputs besides the raw streams.
struct StepAids {
  std::vector<bool> still;       // phone still during the step
  std::vector<bool> mag_usable;  // per magnetometer sample: undisturbed, calibrated
};

struct SmoothedState {
  int64_t t_ns;
  Eigen::Quaterniond q;  // phone -> world
  Eigen::Vector3d bias;
  Eigen::Vector3d velocity;
  double tilt_sigma_deg, heading_sigma_deg;  // from the smoothed covariance
};

struct SmootherRun {
  std::vector<SmoothedState> steps;  // at t0 + k * step
  int64_t t0_ns = 0, step_ns = 0;
  double mean_vertical_specific_force = 0;  // m/s^2, world frame, over the run
  size_t heading_updates = 0;
};

// Still flag per step index of a run that starts at t0 with the given step.
// mag holds calibrated fields (uT, phone frame); use_heading false runs
// gravity-only (for tilt and dip before disturbances are known).
// start: the nominal at t0 (from a previous run) or nullptr to start from
// the first accelerometer and magnetometer samples.
SmootherRun RunSmoother(const std::vector<TimedVec> &acc, const std::vector<TimedVec> &gyr,
                        const std::vector<TimedVec> &mag, const std::vector<bool> &mag_usable,
                        const std::vector<std::pair<int64_t, int64_t>> &still_spans,
                        const SmootherOptions &options, bool use_heading,
                        const SmoothedState *start);

// Attitude at any time inside the run: the smoothed states on both sides
// carried to t with the gyroscope (minus the smoothed bias) and blended.
// Sigmas interpolated.
class AttitudeTrack {
 public:
  AttitudeTrack(const SmootherRun &run, const std::vector<TimedVec> &gyr);
  bool At(int64_t t_ns, Eigen::Quaterniond *q, double *tilt_sigma, double *heading_sigma) const;

 private:
  const SmootherRun &run_;
  const std::vector<TimedVec> &gyr_;
};

}  // namespace qvn_reference

#endif  // QVNLIB_REFERENCE_SMOOTHER_H
