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

#include "core/event_csv.h"
#include "simulate/motion.h"
#include "simulate/sensor_model.h"

namespace {

using namespace qvn_tools;

constexpr int kExitRuntime = 1;
constexpr int kExitUsage = 2;
constexpr char kDefaultMotion[] = "still:2,figure8:24,level:1,table:12,still:3";

const char kHelp[] =
    "usage: qvn_simulate --out-dir DIR [options]\n"
    "\n"
    "Simulates a phone's accelerometer, gyroscope and uncalibrated magnetometer along a\n"
    "described motion and writes, in DIR:\n"
    "  events.csv  t_ns,sensor,x,y,z (acc m/s^2, gyr rad/s, mag uT, cur current)\n"
    "  gt.csv      t_ns,qw,qx,qy,qz  true phone-to-world orientation (east-north-up)\n"
    "              at every magnetometer sample\n"
    "  truth.txt   offset_uT, soft_iron and the other settings used\n"
    "qvn_replay finds gt.csv and truth.txt beside events.csv by itself.\n"
    "The same options and seed always give the same files.\n"
    "\n"
    "options:\n"
    "  --motion SEGMENTS    comma-separated segments KIND:SECONDS[:PARAM] (default\n"
    "                       still:2,figure8:24,level:1,table:12,still:3):\n"
    "                       still:S, figure8:S[:PERIOD_S] (calibration sweep),\n"
    "                       level:S (back to flat), table:S[:DEG_PER_S] (turns on a table),\n"
    "                       walk:S[:TURN_EVERY_S] (walking, phone held in front),\n"
    "                       swing:S[:TURN_EVERY_S] (walking, phone swinging in the hand)\n"
    "  --seed N             noise seed (default 1)\n"
    "  --rate-acc HZ, --rate-gyr HZ, --rate-mag HZ\n"
    "                       sample rates (default 100, 100, 50; 0 leaves a sensor out)\n"
    "  --field UT           earth field strength (default 45)\n"
    "  --inclination DEG    field inclination, positive down (default 60)\n"
    "  --offset X,Y,Z       hard-iron offset in uT (default 42,-28,65)\n"
    "  --soft-iron M        soft-iron matrix M, raw = M * field + offset: nine values\n"
    "                       M00,...,M22 (row-major), identity, device (default: the\n"
    "                       phone whose fixed matrix the library applies, non-NFC\n"
    "                       variant) or device-nfc\n"
    "  --noise-acc SD, --noise-gyr SD, --noise-mag SD\n"
    "                       noise standard deviations (default 0.02, 0.002, 0.3)\n"
    "  --gyro-bias X,Y,Z    gyroscope bias in rad/s (default 0.012,-0.006,0.009)\n"
    "  --disturbance START,DURATION,X,Y,Z\n"
    "                       a field of (X,Y,Z) uT fixed to the phone from START s for\n"
    "                       DURATION s (a magnet passing by)\n"
    "  --charging START,DURATION,CURRENT[,CX,CY,CZ]\n"
    "                       charging current from START s for DURATION s: cur events\n"
    "                       plus the field CURRENT/1000 * (CX,CY,CZ) uT that it makes\n"
    "                       (default coefficients: the non-NFC variant's; the library\n"
    "                       compensates currents from 100000 up)\n"
    "  --start-ns T         time of the first sample (default 1000000000)\n"
    "  --help               this text\n";

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

bool WriteFile(const std::string &path, const std::string &text) {
  FILE *f = std::fopen(path.c_str(), "w");
  if (f == nullptr) return false;
  bool ok = std::fputs(text.c_str(), f) >= 0;
  return (std::fclose(f) == 0) && ok;
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

}  // namespace

int main(int argc, char **argv) {
  SimConfig c;
  DeviceSoftIron(false, c.soft_iron);
  std::string out_dir, motion_text = kDefaultMotion;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "--help" || a == "-h") {
      std::fputs(kHelp, stdout);
      return 0;
    }
    if (a.rfind("--", 0) != 0 || i + 1 >= argc) {
      return Fail(kExitUsage, "'" + a + "': expected an option with a value (see --help)");
    }
    std::string v = argv[++i];
    std::vector<double> l;
    int64_t n = 0;
    bool ok = true;
    if (a == "--out-dir")
      out_dir = v;
    else if (a == "--motion")
      motion_text = v;
    else if (a == "--seed")
      ok = ParseInt64(v, &n) && n >= 0, c.seed = static_cast<uint64_t>(n);
    else if (a == "--start-ns")
      ok = ParseInt64(v, &c.start_ns);
    else if (a == "--rate-acc")
      ok = ParseDouble(v, &c.rate_acc_hz) && c.rate_acc_hz >= 0;
    else if (a == "--rate-gyr")
      ok = ParseDouble(v, &c.rate_gyr_hz) && c.rate_gyr_hz >= 0;
    else if (a == "--rate-mag")
      ok = ParseDouble(v, &c.rate_mag_hz) && c.rate_mag_hz > 0;
    else if (a == "--field")
      ok = ParseDouble(v, &c.field_uT);
    else if (a == "--inclination")
      ok = ParseDouble(v, &c.inclination_deg);
    else if (a == "--noise-acc")
      ok = ParseDouble(v, &c.noise_acc) && c.noise_acc >= 0;
    else if (a == "--noise-gyr")
      ok = ParseDouble(v, &c.noise_gyr) && c.noise_gyr >= 0;
    else if (a == "--noise-mag")
      ok = ParseDouble(v, &c.noise_mag) && c.noise_mag >= 0;
    else if (a == "--offset")
      ok = ParseList(v, 3, 3, &l), c.offset_uT = ok ? V3{l[0], l[1], l[2]} : c.offset_uT;
    else if (a == "--gyro-bias")
      ok = ParseList(v, 3, 3, &l), c.gyro_bias = ok ? V3{l[0], l[1], l[2]} : c.gyro_bias;
    else if (a == "--soft-iron") {
      if (v == "device" || v == "device-nfc") {
        DeviceSoftIron(v == "device-nfc", c.soft_iron);
      } else if (v == "identity") {
        for (size_t k = 0; k < 9; ++k) c.soft_iron[k] = (k % 4 == 0) ? 1.0 : 0.0;
      } else {
        ok = ParseList(v, 9, 9, &l);
        for (size_t k = 0; ok && k < 9; ++k) c.soft_iron[k] = l[k];
      }
    } else if (a == "--disturbance") {
      ok = ParseList(v, 5, 5, &l) && l[1] > 0;
      if (ok) {
        c.disturbance = true;
        c.disturbance_start_s = l[0];
        c.disturbance_duration_s = l[1];
        c.disturbance_uT = {l[2], l[3], l[4]};
      }
    } else if (a == "--charging") {
      ok = (ParseList(v, 3, 3, &l) || ParseList(v, 6, 6, &l)) && l[1] > 0;
      if (ok) {
        c.charging = true;
        c.charging_start_s = l[0];
        c.charging_duration_s = l[1];
        c.charging_current = static_cast<int64_t>(l[2]);
        if (l.size() == 6) c.charging_coeff = {l[3], l[4], l[5]};
      }
    } else {
      return Fail(kExitUsage, "unknown option " + a + " (see --help)");
    }
    if (!ok) return Fail(kExitUsage, "bad value '" + v + "' for " + a);
  }
  if (out_dir.empty()) return Fail(kExitUsage, "--out-dir is required (see --help)");
  std::vector<Segment> segments;
  std::string error;
  if (!ParseMotion(motion_text, &segments, &error)) return Fail(kExitUsage, error);
  if (mkdir(out_dir.c_str(), 0755) != 0 && errno != EEXIST) {
    return Fail(kExitRuntime, "cannot create " + out_dir + ": " + std::strerror(errno));
  }

  Motion motion(segments);
  std::vector<Event> events;
  std::vector<TruthSample> truth;
  Simulate(motion, c, &events, &truth);

  std::string ev = std::string(kEventCsvHeader) + "\n", gt = "t_ns,qw,qx,qy,qz\n";
  char line[160];
  for (const Event &e : events) {
    std::snprintf(line, sizeof line, "%" PRId64 ",%s,%.9g,%.9g,%.9g\n", e.t_ns,
                  SensorName(e.sensor), e.x, e.y, e.z);
    ev += line;
  }
  for (const TruthSample &t : truth) {
    std::snprintf(line, sizeof line, "%" PRId64 ",%.9f,%.9f,%.9f,%.9f\n", t.t_ns, t.q.w, t.q.x,
                  t.q.y, t.q.z);
    gt += line;
  }
  const std::string paths[3] = {out_dir + "/events.csv", out_dir + "/gt.csv",
                                out_dir + "/truth.txt"};
  const std::string texts[3] = {ev, gt, TruthText(c, motion_text)};
  for (int k = 0; k < 3; ++k) {
    if (!WriteFile(paths[k], texts[k])) {
      for (const std::string &p : paths) unlink(p.c_str());
      return Fail(kExitRuntime, "cannot write " + paths[k] + ": " + std::strerror(errno));
    }
  }
  std::printf("wrote %s (%zu events, %.1f s), %s, %s\n", paths[0].c_str(), events.size(),
              motion.duration(), paths[1].c_str(), paths[2].c_str());
  return 0;
}
