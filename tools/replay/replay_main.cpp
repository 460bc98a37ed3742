// qvn_replay: replays a recorded sensor event file through libqvnlib exactly
// as the sensor service drives it, and reports what came out.
#include <android/log.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "core/event_csv.h"
#include "core/ground_truth.h"
#include "core/tunables.h"
#include "replay/library.h"
#include "replay/replay_loop.h"
#include "replay/summary.h"
#include "replay/sysfs_folder.h"

namespace {

using namespace qvn_tools;

constexpr int kExitRuntime = 1;  // the library or a file could not be used
constexpr int kExitUsage = 2;    // bad options or bad input
constexpr size_t kProgressMinEvents = 20000;

const char kHelp[] =
    "usage: qvn_replay [options] EVENTS.csv\n"
    "\n"
    "Replays sensor events through libqvnlib the way the sensor service calls it:\n"
    "QVN_CaliInitLib with a chip description, QVN_FusionEnableLib(1), then for each\n"
    "event in file order: acc -> QVN_CaliApiSetAccelData, gyr -> QVN_CaliApiSetGyroData,\n"
    "mag -> QVN_CaliApiSetMagData + QVN_DoCaliAPI followed by all seven QVN_FusionGet*.\n"
    "The library is loaded with dlopen and driven only through MAG_LIB_API_INTERFACE.\n"
    "\n"
    "EVENTS.csv: t_ns,sensor,x,y,z with sensor acc (m/s^2), gyr (rad/s), mag (uT)\n"
    "or cur (battery current as the power-supply file reports it, in x).\n"
    "\n"
    "options:\n"
    "  --lib PATH           library to load (default: $QVN_LIBRARY, the installed copy\n"
    "                       beside this tool, then the build tree's libqvnlib.so)\n"
    "  --hw-gyro 0|1        ChipInfo.hwGyro: 1 runs fusion per gyroscope sample,\n"
    "                       0 per magnetometer sample with the soft gyroscope (default 0)\n"
    "  --hwname NAME        ro.boot.hwname before init; it selects the device variant\n"
    "                       (\"vask...\" = NFC variant; default: unset)\n"
    "  --set NAME=VALUE     write an exported variable, with its own type, by name;\n"
    "                       NAME[i]=VALUE for one element (NAME[i][j], NAME.x too);\n"
    "                       repeatable. Values are written before QVN_CaliInitLib and\n"
    "                       again right after it: initialisation copies tunables into\n"
    "                       working variables, and the device profile overwrites its\n"
    "                       own set of tunables during init, so the second write is\n"
    "                       what makes those take your value (working copies derived\n"
    "                       from them at init keep the profile's; set those by name)\n"
    "  --list-tunables      print every exported variable (type, shape, value after\n"
    "                       init and --set) and exit\n"
    "  --log-level LEVEL    library log to stderr from LEVEL up: verbose, debug, info,\n"
    "                       warn, error or silent (default silent)\n"
    "  --out FILE.csv       one row per calibration step: time, raw and calibrated\n"
    "                       field, offset, accuracy, orientation, rotation vector, game\n"
    "                       and geomagnetic rotation vectors, gravity, linear\n"
    "                       acceleration, virtual gyroscope, fusion time\n"
    "  --sysfs-root DIR     read the power-supply files under DIR (default: a private\n"
    "                       empty-battery folder, so this machine's battery never leaks in)\n"
    "  --charging-current N battery current in the private folder (default 0; the\n"
    "                       library compensates from 100000 up); cur events change it\n"
    "  --skip-early-gyro    drop gyroscope events before the first magnetometer event\n"
    "  --gt FILE            true orientation t_ns,qw,qx,qy,qz (phone to east-north-up)\n"
    "                       for heading errors (default: gt.csv beside EVENTS.csv)\n"
    "  --gt-shift-ms MS     add MS to the ground truth times (default 0)\n"
    "  --truth FILE         simulator truth (offset_uT, soft_iron; default: truth.txt\n"
    "                       beside EVENTS.csv)\n"
    "  --no-truth           ignore ground truth files beside EVENTS.csv\n"
    "  --no-summary         do not print the summary\n"
    "  --help               this text\n"
    "\n"
    "Exit status: 0 done, 1 the library or a file could not be used, 2 bad options or\n"
    "input (the message names the line or the name).\n";

struct Options {
  std::string events, lib, hwname, out, sysfs_root, gt, truth;
  int hw_gyro = 0;
  bool hwname_set = false, list = false, skip_early_gyro = false, no_truth = false, summary = true;
  int log_priority = ANDROID_LOG_SILENT;
  bool current_set = false;
  int64_t current = 0;
  double gt_shift_ms = 0;
  std::vector<Assignment> sets;
};

int Fail(int code, const std::string &message) {
  std::fprintf(stderr, "qvn_replay: %s\n", message.c_str());
  return code;
}

bool TakesValue(const std::string &option) {
  static const char *const kOptions[] = {
      "--lib",        "--hw-gyro",          "--hwname", "--set",         "--log-level", "--out",
      "--sysfs-root", "--charging-current", "--gt",     "--gt-shift-ms", "--truth"};
  for (const char *o : kOptions) {
    if (option == o) return true;
  }
  return false;
}

// Returns -1 when the options are good, else the exit code.
int ParseOptions(int argc, char **argv, Options *o) {
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    auto value = [&](std::string *v) {
      if (i + 1 >= argc) return false;
      *v = argv[++i];
      return true;
    };
    std::string v, error;
    if (a == "--help" || a == "-h") {
      std::fputs(kHelp, stdout);
      return 0;
    } else if (a == "--list-tunables") {
      o->list = true;
    } else if (a == "--skip-early-gyro") {
      o->skip_early_gyro = true;
    } else if (a == "--no-truth") {
      o->no_truth = true;
    } else if (a == "--no-summary") {
      o->summary = false;
    } else if (a.rfind("--", 0) == 0 && !TakesValue(a)) {
      return Fail(kExitUsage, "unknown option " + a + " (see --help)");
    } else if (a.rfind("--", 0) == 0 && !value(&v)) {
      return Fail(kExitUsage, a + " needs a value");
    } else if (a == "--lib") {
      o->lib = v;
    } else if (a == "--hw-gyro") {
      if (v != "0" && v != "1") return Fail(kExitUsage, "--hw-gyro takes 0 or 1, not '" + v + "'");
      o->hw_gyro = v[0] - '0';
    } else if (a == "--hwname") {
      o->hwname = v;
      o->hwname_set = true;
    } else if (a == "--set") {
      Assignment s;
      if (!ParseAssignment(v, &s, &error)) return Fail(kExitUsage, "--set: " + error);
      o->sets.push_back(s);
    } else if (a == "--log-level") {
      if (!ParseLogLevel(v, &o->log_priority))
        return Fail(kExitUsage, "unknown --log-level '" + v + "'");
    } else if (a == "--out") {
      o->out = v;
    } else if (a == "--sysfs-root") {
      o->sysfs_root = v;
    } else if (a == "--charging-current") {
      if (!ParseInt64(v, &o->current))
        return Fail(kExitUsage, "--charging-current '" + v + "' is not an integer");
      o->current_set = true;
    } else if (a == "--gt") {
      o->gt = v;
    } else if (a == "--gt-shift-ms") {
      if (!ParseDouble(v, &o->gt_shift_ms))
        return Fail(kExitUsage, "--gt-shift-ms '" + v + "' is not a number");
    } else if (a == "--truth") {
      o->truth = v;
    } else if (o->events.empty()) {
      o->events = a;
    } else {
      return Fail(kExitUsage,
                  "more than one events file given: '" + o->events + "' and '" + a + "'");
    }
  }
  if (o->events.empty() && !o->list) return Fail(kExitUsage, "no events file given (see --help)");
  if (!o->sysfs_root.empty() && o->current_set) {
    return Fail(kExitUsage,
                "--charging-current writes the private folder; it cannot go with --sysfs-root");
  }
  return -1;
}

std::string Beside(const std::string &events, const char *name) {
  size_t slash = events.rfind('/');
  std::string path =
      (slash == std::string::npos ? std::string() : events.substr(0, slash + 1)) + name;
  return access(path.c_str(), R_OK) == 0 ? path : std::string();
}

void ApplySets(const Library &lib, const std::vector<Assignment> &sets) {
  for (const Assignment &s : sets) Apply(s, lib.Symbol(s.info->name));
}

void ListTunables(const Library &lib) {
  for (const TunableInfo &t : AllTunables()) {
    const void *p = lib.Symbol(t.name);
    std::printf("%-40s %-8s", t.name, TypeName(t.type));
    if (t.rows > 1 && !t.is_vec3)
      std::printf("[%zu][%zu]", t.rows, t.cols);
    else if (t.count() > 1)
      std::printf("[%zu]", t.count());
    if (p != nullptr && t.count() <= 9) {
      for (size_t i = 0; i < t.count(); ++i) std::printf(" %s", FormatElement(t, p, i).c_str());
    }
    std::printf("\n");
  }
}

}  // namespace

int main(int argc, char **argv) {
  Options o;
  int code = ParseOptions(argc, argv, &o);
  if (code >= 0) return code;
  std::string error;

  std::vector<Event> events;
  if (!o.events.empty() && !ReadEventCsv(o.events, &events, &error)) return Fail(kExitUsage, error);
  if (!o.sysfs_root.empty()) {
    for (const Event &e : events) {
      if (e.sensor == Sensor::kCur) {
        return Fail(kExitUsage, o.events + ":" + std::to_string(e.line) +
                                    ": cur events write the private power-supply folder; "
                                    "they cannot go with --sysfs-root");
      }
    }
  }
  OrientationTruth gt;
  CalibrationTruth truth;
  if (o.gt.empty() && !o.no_truth && !o.events.empty()) o.gt = Beside(o.events, "gt.csv");
  if (o.truth.empty() && !o.no_truth && !o.events.empty()) o.truth = Beside(o.events, "truth.txt");
  if (!o.gt.empty() && !gt.Load(o.gt, &error)) return Fail(kExitUsage, error);
  if (!o.truth.empty() && !truth.Load(o.truth, &error)) return Fail(kExitUsage, error);
  if (o.gt_shift_ms != 0 && !gt.empty()) gt.Shift(static_cast<int64_t>(o.gt_shift_ms * 1e6));

  // Logging is routed before the library can write its first line.
  RouteLibraryLog(o.log_priority);
  Library lib;
  if (!lib.Load(o.lib.empty() ? DefaultLibraryPath() : o.lib, &error))
    return Fail(kExitRuntime, error);

  SysfsFolder folder;
  if (o.sysfs_root.empty() && !folder.Create(o.current, &error)) return Fail(kExitRuntime, error);
  const std::string &root = o.sysfs_root.empty() ? folder.root() : o.sysfs_root;
  if (!lib.SetSysfsRoot(root.c_str())) {
    return Fail(kExitRuntime, "the library's host platform has no qvn_host_set_sysfs_root");
  }
  if (o.hwname_set && !lib.SetProperty("ro.boot.hwname", o.hwname.c_str())) {
    return Fail(kExitRuntime, "cannot set ro.boot.hwname (is libqvnhost loaded?)");
  }
  for (const Assignment &s : o.sets) {
    if (lib.Symbol(s.info->name) == nullptr) {
      return Fail(kExitRuntime, "the library does not export '" + std::string(s.info->name) + "'");
    }
  }

  const QvnLibApiTable &api = lib.api();
  ChipInfo chip;
  std::memset(&chip, 0, sizeof chip);
  chip.hwGyro = static_cast<int8_t>(o.hw_gyro);
  ApplySets(lib, o.sets);
  api.QVN_CaliInitLib(&chip);
  ApplySets(lib, o.sets);
  api.QVN_FusionEnableLib(1);
  if (o.list) {
    ListTunables(lib);
    return 0;
  }

  WarnAboutInput(o.events, events, o.hw_gyro, o.skip_early_gyro, stderr);
  SummaryInput sum;
  api.QVN_CaliApiGetOffset(sum.initial_offset);
  ReplayConfig config;
  config.skip_early_gyro = o.skip_early_gyro;
  config.progress = isatty(STDERR_FILENO) && events.size() >= kProgressMinEvents &&
                    o.log_priority == ANDROID_LOG_SILENT;
  config.on_current = [&folder](int64_t current, std::string *why) {
    return folder.SetCurrent(current, why);
  };
  std::vector<StepRow> rows;
  if (!RunReplay(lib, events, config, &rows, &sum.counts, &error)) return Fail(kExitRuntime, error);
  if (!o.out.empty() && !WriteStepCsv(o.out, rows, &error)) return Fail(kExitRuntime, error);

  if (o.summary) {
    sum.events_path = o.events;
    sum.events = &events;
    sum.rows = &rows;
    sum.lib = &lib;
    sum.hw_gyro = o.hw_gyro;
    sum.hwname = o.hwname;
    sum.gt = gt.empty() ? nullptr : &gt;
    sum.gt_path = o.gt;
    sum.truth = o.truth.empty() ? nullptr : &truth;
    sum.truth_path = o.truth;
    PrintSummary(sum, stdout);
  }
  return 0;
}
