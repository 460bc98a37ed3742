// The tools' output files: written only to regular files, new or existing,
// never to a device, FIFO, socket or directory, nor through a symbolic link
// to one. The text goes to a temporary file beside the target that is renamed
// over it only when complete, so a failed run leaves the old file (or none)
// and never half a file. A symbolic link to a regular file keeps pointing
// there: its target is the file replaced.
#ifndef QVNLIB_TOOLS_CORE_OUTPUT_FILE_H
#define QVNLIB_TOOLS_CORE_OUTPUT_FILE_H

#include <cstdio>
#include <string>

namespace qvn_tools {

// False with the reason when path cannot become a regular output file; else
// *target is the file to replace (path itself, or a link's target).
bool CheckOutputPath(const std::string &path, std::string *target, std::string *error);

class OutputFile {
 public:
  OutputFile() = default;
  OutputFile(const OutputFile &) = delete;
  OutputFile &operator=(const OutputFile &) = delete;
  ~OutputFile() { Discard(); }

  // Checks path and creates the temporary beside its target.
  bool Open(const std::string &path, std::string *error);
  FILE *file() const { return file_; }
  bool is_open() const { return file_ != nullptr; }
  // Closes the temporary and renames it over the target.
  bool Commit(std::string *error);
  // Removes the temporary (nothing of this run is left).
  void Discard();

 private:
  FILE *file_ = nullptr;
  std::string path_, target_, tmp_;
};

}  // namespace qvn_tools

#endif  // QVNLIB_TOOLS_CORE_OUTPUT_FILE_H
