// Options of qvn_replay: parsing and the help text.
#include "replay/options.h"

#include <cstdio>

#include "core/event_csv.h"
#include "core/set_file.h"
#include "replay/library.h"

namespace qvn_tools {
namespace {

constexpr double kMaxSeconds = 1e9;    // about 31 years: any recording
constexpr double kMaxShiftMs = 1e9;    // about 11 days either way
const char kDescription[] =
    "Replays sensor events through libqvnlib the way the sensor service calls it:\n"
    "QVN_CaliInitLib with a chip description, QVN_FusionEnableLib(1), then for each\n"
    "event in time order: acc -> QVN_CaliApiSetAccelData, gyr -> QVN_CaliApiSetGyroData,\n"
    "mag -> QVN_CaliApiSetMagData + QVN_DoCaliAPI followed by all seven QVN_FusionGet*.\n"
    "The library is loaded with dlopen and driven only through MAG_LIB_API_INTERFACE.\n"
    "\n"
    "EVENTS.csv: t_ns,sensor,x,y,z with sensor acc (m/s^2), gyr (rad/s), mag (uT)\n"
    "or cur (battery current as the power-supply file reports it, in x); times in\n"
    "order, finite values. The file is read as it is replayed: memory does not grow\n"
    "with its length unless it is scored against ground truth or sorted.";
const char kFooter[] =
    "Exit status: 0 done, 1 the library or a file could not be used (a missing or\n"
    "unreadable input, an output that is not a regular file), 2 bad options or bad\n"
    "input (the message names the file, line, column and value, or the option).";

}  // namespace

int ParseReplayOptions(int argc, char **argv, ReplayOptions *o) {
  CLI::App app(kDescription, "qvn_replay");
  app.footer(kFooter);
  SetUpApp(&app, "qvn_replay " QVN_VERSION);
  app.add_option("EVENTS.csv", o->events, "the recorded events")->type_name("");
  app.add_option("--lib", o->lib,
                 "library to load (default: $QVN_LIBRARY, the installed copy beside this tool, "
                 "then the build tree's libqvnlib.so)")
      ->type_name("PATH");
  app.add_option("--hw-gyro", o->hw_gyro,
                 "ChipInfo.hwGyro: 1 runs fusion per gyroscope sample, 0 per magnetometer "
                 "sample with the soft gyroscope (default 0)")
      ->type_name("0|1")
      ->check(IntegerIn(0, 1));
  app.add_option("--hwname", o->hwname,
                 "ro.boot.hwname before init; it selects the device variant (\"vask...\" = NFC "
                 "variant; default: unset)")
      ->type_name("NAME");
  CLI::Option *set = app.add_option(
      "--set", "write an exported variable, with its own type, by name: NAME=VALUE, "
               "NAME[i]=VALUE for one element (NAME[i][j], NAME.x too); repeatable. Written "
               "before QVN_CaliInitLib and again right after it, because the device profile "
               "overwrites its own tunables during init (working copies derived from them at "
               "init keep the profile's; set those by name)");
  set->type_name("NAME=VALUE")->allow_extra_args(false)->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  CLI::Option *set_file = app.add_option(
      "--set-file", "the assignments of FILE (NAME=VALUE lines, '#' comments, as qvn_tune "
                    "writes them), in order with the --set options");
  set_file->type_name("FILE")->allow_extra_args(false)->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  app.add_flag("--list-tunables", o->list,
               "print every exported variable (type, shape, value after init and --set) and "
               "exit");
  std::string level = "silent";
  app.add_option("--log-level", level,
                 "library log to stderr from LEVEL up: verbose, debug, info, warn, error or "
                 "silent (default silent)")
      ->type_name("LEVEL");
  app.add_option("--out", o->out,
                 "one row per calibration step (tools/README.md lists the columns): time, raw "
                 "and calibrated field, offset, accuracy, orientation, rotation vectors, "
                 "gravity, linear acceleration, virtual gyroscope, fusion time. A regular file, "
                 "new or existing, replaced only when the replay succeeds")
      ->type_name("FILE.csv");
  app.add_option("--sysfs-root", o->sysfs_root,
                 "read the power-supply files under DIR (default: a private empty-battery "
                 "folder, so this machine's battery never leaks in)")
      ->type_name("DIR");
  CLI::Option *current =
      app.add_option("--charging-current", o->current,
                     "battery current in the private folder (default 0; the library "
                     "compensates from 100000 up); cur events change it")
          ->type_name("N")
          ->check(IntegerIn(INT64_MIN, INT64_MAX));
  app.add_flag("--skip-early-gyro", o->skip_early_gyro,
               "drop gyroscope events before the first magnetometer event (the host order "
               "that keeps the hwGyro 1 quaternion finite)");
  app.add_flag("--reinit-on-nan", o->reinit_on_nan,
               "after a step whose attitude outputs are not finite, call QVN_CaliInitLib again "
               "(with the sets), as a host could");
  app.add_flag("--host-layer", o->host_layer,
               "replay through the host layer (libqvnhostlayer: input hygiene, gyroscope held "
               "until the first magnetometer sample, recovery from outputs that are not "
               "finite) instead of the bare table");
  app.add_flag("--allow-nonfinite", o->allow_nonfinite,
               "hand nan, inf and values beyond float32 in EVENTS.csv and --set to the library "
               "as they stand (robustness tests); refused by default");
  app.add_flag("--sort", o->sort,
               "sort the events by time (stable) before replaying; holds them all in memory. "
               "By default events out of time order are refused");
  app.add_flag("--keep-order", o->keep_order,
               "replay events out of time order as they stand (robustness tests)");
  app.add_option("--from", o->from_s,
                 "replay only events from S seconds after the file's first event, from a "
                 "fresh library (default 0)")
      ->type_name("S")
      ->check(NumberIn(0, kMaxSeconds, "seconds"));
  app.add_option("--to", o->to_s, "... up to S seconds after the file's first event (default: the end)")
      ->type_name("S")
      ->check(NumberIn(0, kMaxSeconds, "seconds"));
  app.add_option("--gt", o->gt,
                 "true orientation t_ns,qw,qx,qy,qz (phone to east-north-up) for heading "
                 "errors (default: gt.csv beside EVENTS.csv)")
      ->type_name("FILE");
  app.add_option("--gt-shift-ms", o->gt_shift_ms, "add MS to the ground truth times (default 0)")
      ->type_name("MS")
      ->check(NumberIn(-kMaxShiftMs, kMaxShiftMs, "milliseconds"));
  app.add_option("--warmup", o->warmup_s,
                 "score outputs from S seconds after the first replayed event (default 10: "
                 "calibration and start-up ramp)")
      ->type_name("S")
      ->check(NumberIn(0, kMaxSeconds, "seconds"));
  app.add_option("--score-from", o->score_from_s,
                 "score only outputs from S seconds after the file's first event (replaying "
                 "from --from as before; replaces --warmup)")
      ->type_name("S")
      ->check(NumberIn(0, kMaxSeconds, "seconds"));
  app.add_option("--score-to", o->score_to_s,
                 "... up to S seconds after the file's first event")
      ->type_name("S")
      ->check(NumberIn(0, kMaxSeconds, "seconds"));
  app.add_option("--errors-out", o->errors_out,
                 "per-step heading and tilt errors of every output (CSV, for qvn_plot --errors)")
      ->type_name("FILE.csv");
  app.add_flag("!--no-lag", o->lag, "do not estimate each output's lag (faster)");
  app.add_option("--attempts-out", o->attempts_out,
                 "every calibration attempt (CSV): time, method, samples, sphere of the batch, "
                 "verdict and the bound that refused it")
      ->type_name("FILE.csv");
  app.add_option("--quality-out", o->quality_out,
                 "per step (CSV): batch count, share of directions covered, distance of the "
                 "offset in force from the reference fit")
      ->type_name("FILE.csv");
  app.add_option("--reference-events", o->reference_events,
                 "fit the offset reference on the magnetometer events of FILE (a calibration "
                 "recording of the same phone) instead of on the replayed recording")
      ->type_name("FILE");
  app.add_option("--truth", o->truth,
                 "simulator truth (offset_uT, soft_iron; default: truth.txt beside EVENTS.csv)")
      ->type_name("FILE");
  app.add_flag("--no-truth", o->no_truth, "ignore ground truth files beside EVENTS.csv");
  app.add_flag("!--no-summary", o->summary, "do not print the summary");

  int code = ParseCommandLine(&app, argc, argv);
  if (code >= 0) return code;
  o->hwname_set = app.count("--hwname") > 0;
  o->window_set = app.count("--warmup") + app.count("--score-from") + app.count("--score-to") > 0;
  o->current_set = current->count() > 0;
  if (!ParseLogLevel(level, &o->log_priority))
    return ReplayFail(kExitUsage, "unknown --log-level " + Quoted(level) + " (see --help)");
  // --set and --set-file in the order given; values parsed now that
  // --allow-nonfinite is known.
  for (const auto &[which, value] : InOrder(app, {set, set_file})) {
    std::string error;
    if (which == 0) {
      Assignment s;
      if (!ParseAssignment(value, &s, &error, o->allow_nonfinite))
        return ReplayFail(kExitUsage, "--set: " + error);
      o->sets.push_back(s);
    } else if (!ReadSetFile(value, &o->sets, &error, o->allow_nonfinite)) {
      // A file that cannot be opened is a file problem, a bad line bad input.
      return ReplayFail(error.find(": cannot open") != std::string::npos ? kExitRuntime : kExitUsage,
                        "--set-file: " + error);
    }
  }
  if (o->to_s >= 0 && o->to_s <= o->from_s)
    return ReplayFail(kExitUsage, "--to must come after --from");
  if (o->score_to_s >= 0 && o->score_from_s >= 0 && o->score_to_s <= o->score_from_s)
    return ReplayFail(kExitUsage, "--score-to must come after --score-from");
  if (o->sort && o->keep_order)
    return ReplayFail(kExitUsage, "--sort and --keep-order exclude each other");
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
