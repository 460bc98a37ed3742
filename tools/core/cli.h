// What the tools' command lines share on top of CLI11: number checks that
// refuse nan, inf and values beyond a documented range with the value in the
// message, the exit codes, and turning CLI11's outcome into them.
#ifndef QVNLIB_TOOLS_CORE_CLI_H
#define QVNLIB_TOOLS_CORE_CLI_H

#include <CLI/CLI.hpp>

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "core/event_csv.h"
#include "core/text_input.h"

namespace qvn_tools {

constexpr int kExitOk = 0;
constexpr int kExitRuntime = 1;  // the library or a file could not be used
constexpr int kExitUsage = 2;    // bad options or bad input

// A finite decimal number in [lo, hi]; what names the unit for the message.
inline CLI::Validator NumberIn(double lo, double hi, const std::string &what) {
  return CLI::Validator(
      [lo, hi, what](std::string &s) -> std::string {
        double v = 0;
        if (!ParseDouble(s, &v) || v < lo || v > hi) {
          char range[64];
          std::snprintf(range, sizeof range, "%g to %g", lo, hi);
          return "takes " + what + " from " + range + ", not " + Quoted(s);
        }
        return std::string();
      },
      "", "number");
}

// A decimal integer in [lo, hi].
inline CLI::Validator IntegerIn(int64_t lo, int64_t hi) {
  return CLI::Validator(
      [lo, hi](std::string &s) -> std::string {
        int64_t v = 0;
        if (!ParseInt64(s, &v) || v < lo || v > hi) {
          return "takes an integer from " + std::to_string(lo) + " to " + std::to_string(hi) +
                 ", not " + Quoted(s);
        }
        return std::string();
      },
      "", "integer");
}

constexpr size_t kHelpColumn = 26;  // where option descriptions start
constexpr size_t kHelpWidth = 80;

// Wraps an option's description to the help's width (CLI11 prints it as is).
inline std::string Help(const std::string &text) {
  std::string out, line;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find(' ', start);
    if (end == std::string::npos) end = text.size();
    std::string word = text.substr(start, end - start);
    if (!line.empty() && kHelpColumn + line.size() + 1 + word.size() > kHelpWidth) {
      out += line + "\n";  // CLI11 indents the continuation
      line.clear();
    }
    line += (line.empty() ? "" : " ") + word;
    start = end + 1;
  }
  return out + line;
}

// An App with the tools' common layout: --version, help column.
inline void SetUpApp(CLI::App *app, const char *version_line) {
  app->set_version_flag("--version", version_line);
  app->get_formatter()->column_width(kHelpColumn);
}

// Parses the command line. Returns -1 when the tool should go on, else the
// exit code: 0 after --help or --version (printed on stdout), 2 after a
// usage error (printed on stderr as "tool: message (see --help)").
inline int ParseCommandLine(CLI::App *app, int argc, char **argv) {
  for (CLI::Option *o : app->get_options()) o->description(Help(o->get_description()));
  try {
    app->parse(argc, argv);
  } catch (const CLI::ParseError &e) {
    if (e.get_exit_code() == 0) return app->exit(e);
    std::string what = e.what();
    std::fprintf(stderr, "%s: %s (see --help)\n", app->get_name().c_str(), what.c_str());
    return kExitUsage;
  }
  return -1;
}

// The values of the given options in command-line order, as (option index,
// value) pairs: CLI11 keeps each option's values apart, and --set with
// --set-file must apply in the order written.
inline std::vector<std::pair<size_t, std::string>> InOrder(
    const CLI::App &app, const std::vector<const CLI::Option *> &options) {
  std::vector<std::pair<size_t, std::string>> out;
  std::vector<size_t> next(options.size(), 0);
  for (const CLI::Option *o : app.parse_order()) {
    for (size_t k = 0; k < options.size(); ++k) {
      if (o != options[k]) continue;
      const auto &r = o->results();
      if (next[k] < r.size()) out.emplace_back(k, r[next[k]++]);
    }
  }
  return out;
}

}  // namespace qvn_tools

#endif  // QVNLIB_TOOLS_CORE_CLI_H
