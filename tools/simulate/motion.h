// A phone's motion as a sequence of segments, each continuing from where the
// previous one left the phone.
//
// Segments (KIND:SECONDS[:PARAM], comma-separated):
//   still:S            the phone does not move
//   figure8:S[:P]      a figure-eight calibration sweep: pitch and roll trace a
//                      1:2 Lissajous figure of period P seconds (default 6)
//                      while the heading turns once every 1.5 P; large enough
//                      angles to show the magnetometer most of the sphere
//   level:S            eases the phone back to flat, keeping its heading
//   table:S[:R]        turns on a table about the vertical: 90-degree turns at
//                      R deg/s (default 45), each followed by a 1 s pause
//   walk:S[:T]         walking with the phone held in front for reading, a turn
//                      every T seconds (default 8); see walk.h
//   swing:S[:T]        walking with the phone swinging in the hand
// The phone starts flat, screen up, its y axis pointing north.
#ifndef QVNLIB_TOOLS_SIMULATE_MOTION_H
#define QVNLIB_TOOLS_SIMULATE_MOTION_H

#include <string>
#include <vector>

#include "core/geometry.h"

namespace qvn_tools {

struct Segment {
  enum Kind { kStill, kFigure8, kLevel, kTable, kWalk, kSwing } kind;
  double duration_s;
  double param;  // figure8: period s; table: turn rate deg/s; walk, swing: s between turns
};

// Parses a motion description; on failure names the faulty segment.
bool ParseMotion(const std::string &text, std::vector<Segment> *out, std::string *error);

class Motion {
 public:
  explicit Motion(std::vector<Segment> segments);
  double duration() const { return total_; }
  // Phone-to-world orientation (east, north, up) at time t seconds.
  Quat At(double t) const;
  // Angular rate in the phone's frame, rad/s (what an ideal gyroscope reads).
  V3 BodyRate(double t) const;
  // Acceleration of the phone in the world frame, m/s^2, gravity excluded
  // (zero except while walking).
  V3 Acceleration(double t) const;

 private:
  Quat Within(size_t k, double tau) const;
  V3 Position(double t) const;
  std::vector<Segment> segments_;
  std::vector<double> start_;  // start time of each segment
  std::vector<Quat> q0_;       // orientation at the start of each segment
  double total_ = 0;
};

}  // namespace qvn_tools

#endif  // QVNLIB_TOOLS_SIMULATE_MOTION_H
