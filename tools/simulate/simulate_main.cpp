// qvn_simulate: writes a sensor event recording of a described motion, with
// its ground truth beside it, for qvn_replay.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "core/checked.h"
#include "core/cli.h"
#include "core/event_csv.h"
#include "core/output_file.h"
#include "simulate/motion.h"
#include "simulate/sensor_model.h"

namespace {

using namespace qvn_tools;

constexpr char kDefaultMotion[] = "still:2,figure8:24,level:1,table:12,still:3";
// The events are held in memory before they are written: a bound on their
// number keeps a mistyped duration or rate from exhausting the machine.
constexpr double kMaxEvents = 5e7;
constexpr double kMaxRateHz = 10000;
constexpr double kMaxStartNs = 4e18;  // leaves room for any simulated span
constexpr double kMaxSeconds = 1e7;   // about 115 days: motion, starts and durations

const char kDescription[] =
    "Simulates a phone's accelerometer, gyroscope and uncalibrated magnetometer along a\n"
    "described motion and writes, in DIR:\n"
    "  events.csv  t_ns,sensor,x,y,z (acc m/s^2, gyr rad/s, mag uT, cur current)\n"
    "  gt.csv      t_ns,qw,qx,qy,qz  true phone-to-world orientation (east-north-up)\n"
    "              at every magnetometer sample\n"
    "  truth.txt   offset_uT, soft_iron and the other settings used\n"
    "qvn_replay finds gt.csv and truth.txt beside events.csv by itself.\n"
    "The same options and seed always give the same files.";
const char kFooter[] =
    "Exit status: 0 done, 1 a file could not be written, 2 bad options.";

int Fail(int code, const std::string &message) {
  std::fprintf(stderr, "qvn_simulate: %s\n", message.c_str());
  return code;
}

// "a,b,c" -> exactly n numbers.
bool ParseList(const std::string &text, size_t n_min, size_t n_max, std::vector<double> *out) {
  out->clear();
  for (const std::string &f : SplitCsvLine(text)) {
    double v = 0;
    if (!ParseDouble(f, &v)) return false;
    out->push_back(v);
  }
  return out->size() >= n_min && out->size() <= n_max;
}

std::string TruthText(const SimConfig &c, const std::string &motion) {
  char buf[1024];
  const double *m = c.soft_iron;
  std::snprintf(
      buf, sizeof buf,
      "# ground truth of a simulated recording (qvn_simulate)\n"
      "# raw magnetometer = soft_iron * earth field + offset_uT (+ disturbance, charging)\n"
      "offset_uT %.9g %.9g %.9g\n"
      "soft_iron %.9g %.9g %.9g %.9g %.9g %.9g %.9g %.9g %.9g\n"
      "field_uT %.9g\ninclination_deg %.9g\ngyro_bias_rad_s %.9g %.9g %.9g\n"
      "seed %" PRIu64 "\n# motion %s\n",
      c.offset_uT.x, c.offset_uT.y, c.offset_uT.z, m[0], m[1], m[2], m[3], m[4], m[5], m[6], m[7],
      m[8], c.field_uT, c.inclination_deg, c.gyro_bias.x, c.gyro_bias.y, c.gyro_bias.z, c.seed,
      motion.c_str());
  return buf;
}


// "a,b,c" -> n_min..n_max finite numbers, as a CLI11 check.
CLI::Validator ListOf(size_t n_min, size_t n_max) {
  return CLI::Validator(
      [n_min, n_max](std::string &v) -> std::string {
        std::vector<double> l;
        if (ParseList(v, n_min, n_max, &l)) return std::string();
        return "takes " + std::to_string(n_min) +
               (n_max != n_min ? " or " + std::to_string(n_max) : std::string()) +
               " finite numbers separated by commas, not " + Quoted(v);
      },
      "", "list");
}

}  // namespace

int main(int argc, char **argv) {
  SimConfig c;
  DeviceSoftIron(false, c.soft_iron);
  std::string out_dir, motion_text = kDefaultMotion, offset, gyro_bias, soft_iron, disturbance,
                       charging;
  CLI::App app(kDescription, "qvn_simulate");
  SetUpApp(&app, "qvn_simulate " QVN_VERSION);
  app.footer(kFooter);
  app.add_option("--out-dir", out_dir, "folder for the three files (created if missing)")
      ->type_name("DIR")
      ->required();
  app.add_option("--motion", motion_text,
                 "comma-separated segments KIND:SECONDS[:PARAM] (default "
                 "still:2,figure8:24,level:1,table:12,still:3): still:S, figure8:S[:PERIOD_S] "
                 "(calibration sweep), level:S (back to flat), table:S[:DEG_PER_S] (turns on a "
                 "table), walk:S[:TURN_EVERY_S] (walking, phone held in front), "
                 "swing:S[:TURN_EVERY_S] (walking, phone swinging in the hand)")
      ->type_name("SEGMENTS");
  app.add_option("--seed", c.seed, "noise seed (default 1)")
      ->type_name("N")
      ->check(IntegerIn(0, INT64_MAX));
  app.add_option("--rate-acc", c.rate_acc_hz, "accelerometer rate (default 100; 0 leaves it out)")
      ->type_name("HZ")
      ->check(NumberIn(0, kMaxRateHz, "Hz"));
  app.add_option("--rate-gyr", c.rate_gyr_hz, "gyroscope rate (default 100; 0 leaves it out)")
      ->type_name("HZ")
      ->check(NumberIn(0, kMaxRateHz, "Hz"));
  app.add_option("--rate-mag", c.rate_mag_hz, "magnetometer rate (default 50)")
      ->type_name("HZ")
      ->check(NumberIn(0.01, kMaxRateHz, "Hz"));
  app.add_option("--field", c.field_uT, "earth field strength (default 45)")
      ->type_name("UT")
      ->check(NumberIn(0, 10000, "uT"));
  app.add_option("--inclination", c.inclination_deg, "field inclination, positive down (default 60)")
      ->type_name("DEG")
      ->check(NumberIn(-90, 90, "degrees"));
  app.add_option("--offset", offset, "hard-iron offset in uT (default 42,-28,65)")
      ->type_name("X,Y,Z")
      ->check(ListOf(3, 3));
  app.add_option("--soft-iron", soft_iron,
                 "soft-iron matrix M, raw = M * field + offset: nine values M00,...,M22 "
                 "(row-major), identity, device (default: the phone whose fixed matrix the "
                 "library applies, non-NFC variant) or device-nfc")
      ->type_name("M");
  app.add_option("--noise-acc", c.noise_acc, "accelerometer noise SD (default 0.02)")
      ->type_name("SD")
      ->check(NumberIn(0, 1e3, "m/s^2"));
  app.add_option("--noise-gyr", c.noise_gyr, "gyroscope noise SD (default 0.002)")
      ->type_name("SD")
      ->check(NumberIn(0, 1e3, "rad/s"));
  app.add_option("--noise-mag", c.noise_mag, "magnetometer noise SD (default 0.3)")
      ->type_name("SD")
      ->check(NumberIn(0, 1e4, "uT"));
  app.add_option("--gyro-bias", gyro_bias, "gyroscope bias in rad/s (default 0.012,-0.006,0.009)")
      ->type_name("X,Y,Z")
      ->check(ListOf(3, 3));
  app.add_option("--disturbance", disturbance,
                 "a field of (X,Y,Z) uT fixed to the phone from START s for DURATION s (a "
                 "magnet passing by)")
      ->type_name("START,DURATION,X,Y,Z")
      ->check(ListOf(5, 5));
  app.add_option("--charging", charging,
                 "charging current from START s for DURATION s: cur events plus the field "
                 "CURRENT/1000 * (CX,CY,CZ) uT that it makes (default coefficients: the non-NFC "
                 "variant's; the library compensates currents from 100000 up)")
      ->type_name("START,DURATION,CURRENT[,CX,CY,CZ]")
      ->check(ListOf(3, 6));
  app.add_option("--start-ns", c.start_ns, "time of the first sample (default 1000000000)")
      ->type_name("T")
      ->check(IntegerIn(-static_cast<int64_t>(kMaxStartNs), static_cast<int64_t>(kMaxStartNs)));
  int code = ParseCommandLine(&app, argc, argv);
  if (code >= 0) return code;

  std::vector<double> l;
  if (!offset.empty() && ParseList(offset, 3, 3, &l)) c.offset_uT = V3{l[0], l[1], l[2]};
  if (!gyro_bias.empty() && ParseList(gyro_bias, 3, 3, &l)) c.gyro_bias = V3{l[0], l[1], l[2]};
  if (soft_iron == "device" || soft_iron == "device-nfc") {
    DeviceSoftIron(soft_iron == "device-nfc", c.soft_iron);
  } else if (soft_iron == "identity") {
    for (size_t k = 0; k < 9; ++k) c.soft_iron[k] = (k % 4 == 0) ? 1.0 : 0.0;
  } else if (!soft_iron.empty()) {
    if (!ParseList(soft_iron, 9, 9, &l)) {
      return Fail(kExitUsage, "--soft-iron takes nine finite numbers, identity, device or "
                              "device-nfc, not " + Quoted(soft_iron));
    }
    for (size_t k = 0; k < 9; ++k) c.soft_iron[k] = l[k];
  }
  if (!disturbance.empty() && ParseList(disturbance, 5, 5, &l)) {
    if (!(l[1] > 0 && l[1] <= kMaxSeconds && l[0] >= 0 && l[0] <= kMaxSeconds))
      return Fail(kExitUsage, "--disturbance: START from 0 and DURATION above 0, both up to 1e7 s");
    c.disturbance = true;
    c.disturbance_start_s = l[0];
    c.disturbance_duration_s = l[1];
    c.disturbance_uT = {l[2], l[3], l[4]};
  }
  if (!charging.empty() && ParseList(charging, 3, 6, &l)) {
    if (l.size() != 3 && l.size() != 6)
      return Fail(kExitUsage, "--charging takes 3 or 6 numbers, not " + Quoted(charging));
    if (!(l[1] > 0 && l[1] <= kMaxSeconds && l[0] >= 0 && l[0] <= kMaxSeconds))
      return Fail(kExitUsage, "--charging: START from 0 and DURATION above 0, both up to 1e7 s");
    if (!FitsInt64(l[2]))
      return Fail(kExitUsage, "--charging: CURRENT " + Quoted(charging) + " does not fit 64 bits");
    c.charging = true;
    c.charging_start_s = l[0];
    c.charging_duration_s = l[1];
    c.charging_current = static_cast<int64_t>(l[2]);
    if (l.size() == 6) c.charging_coeff = {l[3], l[4], l[5]};
  }
  std::vector<Segment> segments;
  std::string error;
  if (!ParseMotion(motion_text, &segments, &error)) return Fail(kExitUsage, error);
  double seconds = 0;
  for (const Segment &sg : segments) seconds += sg.duration_s;
  const double events_expected = seconds * (c.rate_acc_hz + c.rate_gyr_hz + c.rate_mag_hz);
  if (!(seconds <= kMaxSeconds)) {
    char buf[96];
    std::snprintf(buf, sizeof buf, "--motion lasts %g s; at most %g s", seconds, kMaxSeconds);
    return Fail(kExitUsage, buf);
  }
  if (!(events_expected <= kMaxEvents)) {
    char buf[160];
    std::snprintf(buf, sizeof buf,
                  "%.0f s at these rates would make %.3g events; at most %.0g in one run", seconds,
                  events_expected, kMaxEvents);
    return Fail(kExitUsage, buf);
  }
  if (mkdir(out_dir.c_str(), 0755) != 0 && errno != EEXIST) {
    return Fail(kExitRuntime, "cannot create " + out_dir + ": " + std::strerror(errno));
  }

  Motion motion(segments);
  std::vector<Event> events;
  std::vector<TruthSample> truth;
  Simulate(motion, c, &events, &truth);

  const std::string paths[3] = {out_dir + "/events.csv", out_dir + "/gt.csv",
                                out_dir + "/truth.txt"};
  // All three are checked and opened before any is written.
  OutputFile files[3];
  for (int k = 0; k < 3; ++k) {
    if (!files[k].Open(paths[k], &error)) return Fail(kExitRuntime, error);
  }
  std::fprintf(files[0].file(), "%s\n", kEventCsvHeader);
  for (const Event &e : events) {
    std::fprintf(files[0].file(), "%" PRId64 ",%s,%.9g,%.9g,%.9g\n", e.t_ns, SensorName(e.sensor),
                 e.x, e.y, e.z);
  }
  std::fprintf(files[1].file(), "t_ns,qw,qx,qy,qz\n");
  for (const TruthSample &t : truth) {
    std::fprintf(files[1].file(), "%" PRId64 ",%.9f,%.9f,%.9f,%.9f\n", t.t_ns, t.q.w, t.q.x,
                 t.q.y, t.q.z);
  }
  std::fputs(TruthText(c, motion_text).c_str(), files[2].file());
  for (int k = 0; k < 3; ++k) {
    if (!files[k].Commit(&error)) return Fail(kExitRuntime, error);
  }
  std::printf("wrote %s (%zu events, %.1f s), %s, %s\n", paths[0].c_str(), events.size(),
              motion.duration(), paths[1].c_str(), paths[2].c_str());
  return 0;
}
