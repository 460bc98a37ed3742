// Evaluating a tunable set on a part of a recording in a forked child.
#include "tune/evaluate.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <type_traits>

#include "core/checked.h"
#include "replay/replay_loop.h"

namespace qvn_tools {
namespace {

constexpr double kNsPerS = 1e9;
constexpr unsigned kChildTimeLimitS = 300;  // a replay takes well under a second

static_assert(std::is_trivially_copyable_v<PartResult>, "PartResult crosses a pipe as bytes");

std::string Beside(const std::string &events, const char *name) {
  size_t slash = events.rfind('/');
  return (slash == std::string::npos ? std::string() : events.substr(0, slash + 1)) + name;
}

void ApplyAll(const Library &lib, const std::vector<Assignment> &a,
              const std::vector<Assignment> &b) {
  for (const auto *set : {&a, &b}) {
    for (const Assignment &s : *set) {
      if (void *p = lib.Symbol(s.info->name)) Apply(s, p);
    }
  }
}

// The child's work: the replay exactly as qvn_replay makes it, then the scores.
PartResult RunInChild(const EvalSetup &setup, const std::vector<Assignment> &candidate,
                      const Part &part) {
  const Library &lib = *setup.lib;
  ChipInfo chip;
  std::memset(&chip, 0, sizeof chip);
  chip.hwGyro = static_cast<int8_t>(setup.hw_gyro);
  // Before initialisation for values it copies into working variables, after
  // it for those the device profile rewrites: the order of qvn_replay --set,
  // so that the replay of a set file reproduces this evaluation exactly.
  ApplyAll(lib, setup.base, candidate);
  lib.api().QVN_CaliInitLib(&chip);
  ApplyAll(lib, setup.base, candidate);
  lib.api().QVN_FusionEnableLib(1);
  ReplayConfig config;
  config.skip_early_gyro = setup.skip_early_gyro;
  SysfsFolder *folder = setup.folder;
  config.on_current = [folder](int64_t current, std::string *why) {
    return folder == nullptr || folder->SetCurrent(current, why);
  };
  std::vector<StepRow> rows;
  ReplayCounts counts;
  std::string error;
  PartResult r;
  if (!RunReplay(lib, part.events, config, &rows, &counts, &error)) {
    std::fprintf(stderr, "qvn_tune: %s\n", error.c_str());
    return r;
  }
  AccuracyOptions ao;
  ao.hw_gyro = setup.hw_gyro;
  ScoringWindow(part.file_t0_ns, part.t0_ns, part.warmup_s, part.score_from_s, part.score_to_s,
                &ao.from_ns, &ao.to_ns);
  ao.with_lag = false;  // the objective does not use it, and it costs most of the time
  AccuracyReport rep = ScoreRun(rows, part.truth, ao);
  for (int k = 0; k < kScoredCount; ++k) {
    r.constant[k] = rep.out[k].constant;
    r.stats[k] = rep.out[k].stats;
  }
  r.ok = true;
  return r;
}

}  // namespace

bool LoadPart(const std::string &description, double default_warmup_s, Part *out,
              std::string *error) {
  Part p;
  p.description = description;
  p.warmup_s = default_warmup_s;
  std::vector<std::string> f = SplitCsvLine(description);
  p.path = f.empty() ? std::string() : f[0];
  for (size_t k = 1; k < f.size(); ++k) {
    size_t eq = f[k].find('=');
    std::string key = f[k].substr(0, eq),
                value = eq == std::string::npos ? "" : f[k].substr(eq + 1);
    double *d = key == "from"          ? &p.from_s
                : key == "to"          ? &p.to_s
                : key == "gt-shift-ms" ? &p.gt_shift_ms
                : key == "warmup"      ? &p.warmup_s
                : key == "score-from"  ? &p.score_from_s
                : key == "score-to"    ? &p.score_to_s
                : key == "gt-max-sigma" ? &p.gt_max_sigma
                                       : nullptr;
    if (key == "gt") {
      p.gt_path = value;
    } else if (d == nullptr || !ParseDouble(value, d) ||
               (key == "gt-shift-ms" ? std::fabs(*d) > 1e9 : (*d < 0 || *d > 1e9))) {
      *error = "recording '" + description + "': bad item '" + f[k] +
               "' (from=S, to=S, score-from=S, score-to=S, warmup=S with seconds from 0 to "
               "1e9; gt=FILE; gt-shift-ms=MS within +-1e9; gt-max-sigma=DEG)";
      return false;
    }
  }
  if (p.path.empty() || (p.to_s >= 0 && p.to_s <= p.from_s)) {
    *error = "recording '" + description + "': needs a path and to > from";
    return false;
  }
  if (p.gt_path.empty()) p.gt_path = Beside(p.path, "gt.csv");
  if (!ReadEventCsv(p.path, &p.events, error) || !p.truth.Load(p.gt_path, error)) return false;
  p.file_t0_ns = p.events.empty() ? 0 : p.events.front().t_ns;
  CutEvents(&p.events, p.from_s, p.to_s);
  if (p.events.empty()) {
    *error = "recording '" + description + "': no events in the span";
    return false;
  }
  if (p.gt_shift_ms != 0) p.truth.Shift(SaturatingInt64(p.gt_shift_ms * 1e6));
  if (p.gt_max_sigma >= 0) {
    if (!p.truth.has_sigma()) {
      *error = "recording '" + description + "': gt-max-sigma needs a truth with a sigma_deg column";
      return false;
    }
    p.untrusted = p.truth.SetMaxSigma(p.gt_max_sigma);
  }
  if (p.truth.last_ns() < p.events.front().t_ns || p.truth.first_ns() > p.events.back().t_ns) {
    *error = "recording '" + description + "': its ground truth " + p.gt_path +
             " does not overlap the replayed events (gt-shift-ms moves the truth)";
    return false;
  }
  p.t0_ns = p.events.front().t_ns;
  int64_t from_ns = 0, to_ns = 0;
  ScoringWindow(p.file_t0_ns, p.t0_ns, p.warmup_s, p.score_from_s, p.score_to_s, &from_ns, &to_ns);
  if (from_ns > p.events.back().t_ns || to_ns <= p.t0_ns) {
    *error = "recording '" + description +
             "': the scored span lies outside the replayed events (see warmup, score-from, "
             "score-to)";
    return false;
  }
  size_t cut = p.path.rfind('/');
  cut = cut == std::string::npos || cut == 0 ? std::string::npos : p.path.rfind('/', cut - 1);
  p.label = cut == std::string::npos ? p.path : p.path.substr(cut + 1);
  // "folder/events.csv 0-62 s" (replayed span), then ", scored 62-end" when
  // the scored span is given.
  auto span = [](double from, double to) {
    char buf[48];
    std::snprintf(buf, sizeof buf, to < 0 ? "%g-end" : "%g-%g", from, to);
    return std::string(buf);
  };
  p.label += " " + span(p.from_s, p.to_s) + " s";
  if (p.score_from_s >= 0 || p.score_to_s >= 0) {
    p.label += ", scored " + span(p.score_from_s < 0 ? p.from_s : p.score_from_s, p.score_to_s);
  }
  if (p.gt_max_sigma >= 0) p.label += ", " + std::to_string(p.untrusted) + " untrusted";
  *out = std::move(p);
  return true;
}

std::string ReplayArguments(const Part &p) {
  char buf[160];
  std::string s;
  if (p.from_s > 0) std::snprintf(buf, sizeof buf, " --from %g", p.from_s), s += buf;
  if (p.to_s >= 0) std::snprintf(buf, sizeof buf, " --to %g", p.to_s), s += buf;
  if (p.gt_shift_ms != 0)
    std::snprintf(buf, sizeof buf, " --gt-shift-ms %g", p.gt_shift_ms), s += buf;
  if (p.gt_max_sigma >= 0)
    std::snprintf(buf, sizeof buf, " --gt-max-sigma %g", p.gt_max_sigma), s += buf;
  if (p.score_from_s >= 0)
    std::snprintf(buf, sizeof buf, " --score-from %g", p.score_from_s), s += buf;
  if (p.score_to_s >= 0) std::snprintf(buf, sizeof buf, " --score-to %g", p.score_to_s), s += buf;
  std::snprintf(buf, sizeof buf, " --warmup %g --gt ", p.warmup_s);
  return s + buf + p.gt_path + " " + p.path;
}

PartResult EvaluatePart(const EvalSetup &setup, const std::vector<Assignment> &candidate,
                        const Part &part) {
  PartResult result;
  int fd[2];
  if (pipe(fd) != 0) return result;
  std::fflush(nullptr);  // nothing buffered is written twice
  // The child inherits the library exactly as loaded: the parent never
  // initialises it, so no state of one evaluation reaches the next.
  pid_t pid = fork();
  if (pid < 0) {
    close(fd[0]);
    close(fd[1]);
    return result;
  }
  if (pid == 0) {
    close(fd[0]);
    alarm(kChildTimeLimitS);  // a hung child must not hang the search
    PartResult r = RunInChild(setup, candidate, part);
    const char *p = reinterpret_cast<const char *>(&r);
    size_t left = sizeof r;
    while (left > 0) {
      ssize_t n = write(fd[1], p, left);
      if (n <= 0) _exit(1);
      p += n;
      left -= static_cast<size_t>(n);
    }
    _exit(0);
  }
  close(fd[1]);
  PartResult r;
  char *p = reinterpret_cast<char *>(&r);
  size_t got = 0;
  while (got < sizeof r) {
    ssize_t n = read(fd[0], p + got, sizeof r - got);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    got += static_cast<size_t>(n);
  }
  close(fd[0]);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  // A child that crashed or was stopped reports ok = false, and the set loses.
  if (got == sizeof r && WIFEXITED(status) && WEXITSTATUS(status) == 0) result = r;
  return result;
}

}  // namespace qvn_tools
