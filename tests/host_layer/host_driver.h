// A sensor service in a test: loads the core with dlopen and drives a
// simulated recording either through the bare entry table or through the
// host layer, with hooks to break things on the way.
#ifndef QVNLIB_TESTS_HOST_LAYER_HOST_DRIVER_H
#define QVNLIB_TESTS_HOST_LAYER_HOST_DRIVER_H

#include <stdint.h>

#include <functional>
#include <string>
#include <vector>

#include "qvn_host_layer.h"
#include "qvnlib/qvnlib.h"
#include "support/motion.h"

namespace qvn_test {

enum class Path { kBare, kLayer };

// Everything a step returned: the calibration result and the seven outputs.
struct Outputs {
  int64_t t_ns;
  CaliResult cal;
  FusionEvent fusion[QVN_LAYER_OUTPUTS];
  bool AllFinite() const;
};

class HostDriver {
 public:
  // Loads the core (property store and power-supply folder set first), then
  // initialises it through path. hwname may be empty.
  HostDriver(Path path, int8_t hw_gyro, const std::string &hwname,
             const std::string &state_path = std::string());
  ~HostDriver();

  void *Symbol(const char *name) const;
  template <class T>
  T *Var(const char *name) const {
    return static_cast<T *>(Symbol(name));
  }

  // One sample through the chosen path. Mag returns the step's outputs.
  int Acc(int64_t t, float x, float y, float z);
  int Gyro(int64_t t, float x, float y, float z);
  Outputs Mag(int64_t t, float x, float y, float z);
  void SetOffset(const float o[3]);
  void Reinitialise();  // QVN_CaliInitLib again, as the host's remedy

  // Replays events; before each event at or after a hook's time the hook runs
  // once. Returns the outputs of every magnetometer step.
  struct Hook {
    int64_t t_ns;
    std::function<void(HostDriver &)> run;
  };
  std::vector<Outputs> Run(const std::vector<SimEvent> &events, std::vector<Hook> hooks = {});

  // With hwGyro 1, gyroscope events before the first magnetometer event are
  // not delivered (the host order that the bare table needs).
  bool skip_early_gyro = false;
  // Accelerometer events of the replayed scene up to this time are not
  // delivered: a stalled sensor. Hooks set it; their own samples still pass.
  int64_t acc_lost_until = -1;
  bool ok() const { return ok_; }
  const std::string &error() const { return error_; }
  Path path() const { return path_; }

 private:
  Path path_;
  ChipInfo chip_;
  void *handle_ = nullptr;
  const QvnLibApiTable *api_ = nullptr;
  bool ok_ = false;
  bool seen_mag_ = false;
  std::string error_;
};

// The standard scene of these tests: a phone turning at 100 Hz (acc, gyr)
// and 50 Hz (mag) with a hard-iron offset, starting at start_ns.
std::vector<SimEvent> Scene(double seconds, double start_ns);

}  // namespace qvn_test

#endif  // QVNLIB_TESTS_HOST_LAYER_HOST_DRIVER_H
