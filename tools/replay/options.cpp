// Options of qvn_replay: parsing and the help text.
#include "replay/options.h"

#include <cstdio>

#include "core/event_csv.h"
#include "core/set_file.h"
#include "replay/library.h"

namespace qvn_tools {
namespace {

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
    "  --set-file FILE      the assignments of FILE (NAME=VALUE lines, '#' comments,\n"
    "                       as qvn_tune writes them), in order with the --set options\n"
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
    "                       (the host order that keeps the hwGyro 1 quaternion finite)\n"
    "  --reinit-on-nan      after a step whose attitude outputs are not finite, call\n"
    "                       QVN_CaliInitLib again (with the sets), as a host could\n"
    "  --from S, --to S     replay only events from S to S seconds after the file's\n"
    "                       first event (default: all), from a fresh library\n"
    "  --gt FILE            true orientation t_ns,qw,qx,qy,qz (phone to east-north-up)\n"
    "                       for heading errors (default: gt.csv beside EVENTS.csv)\n"
    "  --gt-shift-ms MS     add MS to the ground truth times (default 0)\n"
    "  --gt-max-sigma DEG   a truth with a sigma_deg column (a reference attitude): do\n"
    "                       not score next to samples whose sigma exceeds DEG\n"
    "  --warmup S           score outputs from S seconds after the first replayed event\n"
    "                       (default 10: calibration and start-up ramp)\n"
    "  --score-from S, --score-to S\n"
    "                       score only outputs from S to S seconds after the file's\n"
    "                       first event (replaying from --from as before; --score-from\n"
    "                       replaces --warmup)\n"
    "  --errors-out FILE    per-step heading and tilt errors of every output (CSV, for\n"
    "                       qvn_plot --errors)\n"
    "  --no-lag             do not estimate each output's lag (faster)\n"
    "  --truth FILE         simulator truth (offset_uT, soft_iron; default: truth.txt\n"
    "                       beside EVENTS.csv)\n"
    "  --no-truth           ignore ground truth files beside EVENTS.csv\n"
    "  --no-summary         do not print the summary\n"
    "  --help               this text\n"
    "\n"
    "Exit status: 0 done, 1 the library or a file could not be used, 2 bad options or\n"
    "input (the message names the line or the name).\n";

bool TakesValue(const std::string &option) {
  static const char *const kOptions[] = {
      "--lib",        "--hw-gyro",     "--hwname",     "--set",
      "--log-level",  "--out",         "--sysfs-root", "--charging-current",
      "--gt",         "--gt-shift-ms", "--truth",      "--set-file", "--gt-max-sigma",
      "--from",       "--to",          "--warmup",     "--errors-out",
      "--score-from", "--score-to"};
  for (const char *o : kOptions) {
    if (option == o) return true;
  }
  return false;
}

// Returns -1 when the options are good, else the exit code.
}  // namespace

int ParseReplayOptions(int argc, char **argv, ReplayOptions *o) {
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
    } else if (a == "--reinit-on-nan") {
      o->reinit_on_nan = true;
    } else if (a == "--no-lag") {
      o->lag = false;
    } else if (a.rfind("--", 0) == 0 && !TakesValue(a)) {
      return ReplayFail(kExitUsage, "unknown option " + a + " (see --help)");
    } else if (a.rfind("--", 0) == 0 && !value(&v)) {
      return ReplayFail(kExitUsage, a + " needs a value");
    } else if (a == "--lib") {
      o->lib = v;
    } else if (a == "--hw-gyro") {
      if (v != "0" && v != "1")
        return ReplayFail(kExitUsage, "--hw-gyro takes 0 or 1, not '" + v + "'");
      o->hw_gyro = v[0] - '0';
    } else if (a == "--hwname") {
      o->hwname = v;
      o->hwname_set = true;
    } else if (a == "--set") {
      Assignment s;
      if (!ParseAssignment(v, &s, &error)) return ReplayFail(kExitUsage, "--set: " + error);
      o->sets.push_back(s);
    } else if (a == "--set-file") {
      if (!ReadSetFile(v, &o->sets, &error)) return ReplayFail(kExitUsage, "--set-file: " + error);
    } else if (a == "--from" || a == "--to" || a == "--warmup") {
      double *d = a == "--from" ? &o->from_s : (a == "--to" ? &o->to_s : &o->warmup_s);
      if (!ParseDouble(v, d) || *d < 0)
        return ReplayFail(kExitUsage, a + " takes seconds >= 0, not '" + v + "'");
    } else if (a == "--score-from" || a == "--score-to") {
      double *d = a == "--score-from" ? &o->score_from_s : &o->score_to_s;
      if (!ParseDouble(v, d) || *d < 0)
        return ReplayFail(kExitUsage, a + " takes seconds >= 0, not '" + v + "'");
    } else if (a == "--errors-out") {
      o->errors_out = v;
    } else if (a == "--log-level") {
      if (!ParseLogLevel(v, &o->log_priority))
        return ReplayFail(kExitUsage, "unknown --log-level '" + v + "'");
    } else if (a == "--out") {
      o->out = v;
    } else if (a == "--sysfs-root") {
      o->sysfs_root = v;
    } else if (a == "--charging-current") {
      if (!ParseInt64(v, &o->current))
        return ReplayFail(kExitUsage, "--charging-current '" + v + "' is not an integer");
      o->current_set = true;
    } else if (a == "--gt") {
      o->gt = v;
    } else if (a == "--gt-shift-ms") {
      if (!ParseDouble(v, &o->gt_shift_ms))
        return ReplayFail(kExitUsage, "--gt-shift-ms '" + v + "' is not a number");
    } else if (a == "--gt-max-sigma") {
      if (!ParseDouble(v, &o->gt_max_sigma) || !(o->gt_max_sigma >= 0))
        return ReplayFail(kExitUsage, "--gt-max-sigma '" + v + "' is not a number >= 0");
    } else if (a == "--truth") {
      o->truth = v;
    } else if (o->events.empty()) {
      o->events = a;
    } else {
      return ReplayFail(kExitUsage,
                        "more than one events file given: '" + o->events + "' and '" + a + "'");
    }
  }
  if (o->to_s >= 0 && o->to_s <= o->from_s)
    return ReplayFail(kExitUsage, "--to must come after --from");
  if (o->events.empty() && !o->list)
    return ReplayFail(kExitUsage, "no events file given (see --help)");
  if (!o->sysfs_root.empty() && o->current_set) {
    return ReplayFail(
        kExitUsage, "--charging-current writes the private folder; it cannot go with --sysfs-root");
  }
  return -1;
}

int ReplayFail(int code, const std::string &message) {
  std::fprintf(stderr, "qvn_replay: %s\n", message.c_str());
  return code;
}

}  // namespace qvn_tools
