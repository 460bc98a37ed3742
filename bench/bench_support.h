// Shared by the timing benchmarks (qvn_bench) and the instruction counter
// (qvn_bench_count): the list of measured operations, the simulated sensor
// stream they run on, and the library state they start from.
//
// Every operation has a one-off setup, an optional untimed prepare that runs
// before each timed call (to put a fit back at the brink of its batch), and
// the timed run itself. The library keeps all state process-wide, so every
// setup re-initialises through the entry table and warms up on the stream.
#ifndef QVNLIB_BENCH_BENCH_SUPPORT_H
#define QVNLIB_BENCH_BENCH_SUPPORT_H

#include <stdint.h>

#include <vector>

#include "qvnlib/qvnlib.h"
#include "support/motion.h"

namespace qvn_bench {

struct Operation {
  const char *name;
  const char *target;  // the figure to meet, or "-" for a reference figure
  void (*setup)();
  void (*prepare)();  // nullptr when the run repeats without preparation
  void (*run)();
};

std::vector<Operation> CaliOperations();
std::vector<Operation> FusionOperations();
std::vector<Operation> KernelOperations();
std::vector<Operation> LogOperations();
// All of the above, in report order.
const std::vector<Operation> &AllOperations();

// ---- library state ----
// The three costs of the log: silenced (no line formatted), every line
// formatted and dropped by a logger that discards it, and every line written
// by the log library's own writer (its stderr logger on a workstation) into
// /dev/null.
enum class Log { kSilent, kDropped, kWritten };
enum class CurrentFile { kAbsent, kPresent };

// Puts back every tunable a benchmark may have changed, points the battery
// current read at a folder with or without the file, sets the log mode and
// initialises through MAG_LIB_API_INTERFACE with the given hwGyro byte.
void ResetLibrary(int8_t hw_gyro, Log log, CurrentFile current);

// Lines the log has received (dropped or written) since the last call.
long TakeLogLines();

// Until the next ResetLibrary, the library's battery-current read returns the
// current it reads now, without opening the file: this executable defines
// get_battery_current, which the library's call binds to (the library exports
// it, like every routine), and that definition forwards to the library's own
// routine at all other times. Aborts if the library no longer calls it
// through its export.
void ExcludeBatteryRead();

// ---- the stream ----
// A 60 s simulated recording (accelerometer and gyroscope at 100 Hz,
// magnetometer at 50 Hz, a phone turning through all attitudes with a
// hard-iron offset) that repeats with its timestamps carried forward, so
// time only ever advances, whatever the order of the benchmarks.
struct Event {
  qvn_test::Sensor sensor;
  SensorEvent e;
};
Event NextEvent();

// The hard-iron offset of the simulated magnetometer, uT.
const float *StreamOffset();

// Stores accelerometer and gyroscope samples through the table until the
// next magnetometer sample, which is returned without being handed over.
SensorEvent FeedUntilMag();

// Hands every event to the table as a host would (QVN_CaliApiSetMagData and
// QVN_DoCaliAPI for the magnetometer) for the given stream time.
void Replay(double seconds);

// Magnetometer samples spread over the whole recording (every k-th), for
// the fit kernels: planar x, y, z of n samples.
void SpreadBatch(int n, float *x, float *y, float *z);

}  // namespace qvn_bench

#endif  // QVNLIB_BENCH_BENCH_SUPPORT_H
