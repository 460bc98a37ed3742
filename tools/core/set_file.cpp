// Reading and writing tunable sets: the set file and the host's C snippet.
#include "core/set_file.h"

#include "core/output_file.h"
#include "core/text_input.h"

#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>

namespace qvn_tools {
namespace {

std::string Trim(const std::string &s) {
  size_t b = s.find_first_not_of(" \t\r");
  if (b == std::string::npos) return "";
  size_t e = s.find_last_not_of(" \t\r");
  return s.substr(b, e - b + 1);
}

const char *CType(ScalarType t) {
  // In the order of ScalarType.
  static const char *const kTypes[] = {"float",   "int8_t",   "uint8_t", "int16_t", "uint16_t",
                                       "int32_t", "uint32_t", "int64_t", "uint64_t"};
  return kTypes[static_cast<int>(t)];
}

// A C literal of the element: floats keep all nine digits and a decimal point.
std::string CLiteral(const Assignment &a) {
  std::string v = FormatElement(*a.info, &a.bits, 0);
  if (a.info->type != ScalarType::kF32) return "(" + std::string(CType(a.info->type)) + ")" + v;
  float f = 0;
  std::memcpy(&f, &a.bits, sizeof f);
  if (std::isnan(f)) return "NAN";
  if (std::isinf(f)) return f > 0 ? "INFINITY" : "-INFINITY";
  if (v.find_first_of(".e") == std::string::npos) v += ".0";
  return v + "f";
}

std::string Comment(const std::vector<std::string> &lines, const char *prefix) {
  std::string s;
  for (const std::string &l : lines) s += prefix + l + "\n";
  return s;
}

}  // namespace

namespace {

bool ReadSetLines(LineReader *in, std::vector<Assignment> *out, std::string *error,
                  bool allow_nonfinite) {
  std::string why;
  std::string_view raw;
  while (in->Next(&raw)) {
    std::string text = Trim(std::string(raw.substr(0, raw.find('#'))));
    if (text.empty()) continue;
    Assignment a;
    if (!ParseAssignment(text, &a, &why, allow_nonfinite)) {
      *error = in->Where() + why;
      return false;
    }
    out->push_back(a);
  }
  if (!in->error().empty()) {
    *error = in->error();
    return false;
  }
  return true;
}

}  // namespace

bool ReadSetFile(const std::string &path, std::vector<Assignment> *out, std::string *error,
                 bool allow_nonfinite) {
  LineReader in;
  return in.Open(path, error) && ReadSetLines(&in, out, error, allow_nonfinite);
}

bool ReadSetText(const char *data, size_t size, const std::string &name,
                 std::vector<Assignment> *out, std::string *error, bool allow_nonfinite) {
  LineReader in;
  in.OpenMemory(data, size, name);
  return ReadSetLines(&in, out, error, allow_nonfinite);
}

std::string FormatAssignment(const Assignment &a) {
  std::string lhs = a.info->name;
  if (a.count == 1 && a.info->count() > 1) lhs += "[" + std::to_string(a.first) + "]";
  return lhs + "=" + FormatElement(*a.info, &a.bits, 0);
}

std::string SetFileText(const std::vector<Assignment> &set,
                        const std::vector<std::string> &comment) {
  std::string s = Comment(comment, "# ");
  for (const Assignment &a : set) s += FormatAssignment(a) + "\n";
  return s;
}

std::string CSnippetText(const std::vector<Assignment> &set,
                         const std::vector<std::string> &comment) {
  std::string s = "/*\n" + Comment(comment, " * ") + " */\n";
  s += "#include <dlfcn.h>\n#include <math.h>\n#include <stddef.h>\n#include <stdint.h>\n\n";
  s += "static void qvn_apply_tuned_set(void *lib) {\n  void *p;\n";
  for (const Assignment &a : set) {
    s += "  if ((p = dlsym(lib, \"" + std::string(a.info->name) + "\")) != NULL) {\n";
    for (size_t k = a.first; k < a.first + a.count; ++k) {
      s += "    ((" + std::string(CType(a.info->type)) + " *)p)[" + std::to_string(k) +
           "] = " + CLiteral(a) + ";\n";
    }
    s += "  }\n";
  }
  s += "}\n";
  return s;
}

bool WriteTextFile(const std::string &path, const std::string &text, std::string *error) {
  OutputFile out;
  if (!out.Open(path, error)) return false;
  if (std::fputs(text.c_str(), out.file()) < 0) {
    *error = "cannot write " + path + ": " + std::strerror(errno);
    return false;
  }
  return out.Commit(error);
}

}  // namespace qvn_tools
