// Reading the tools' text inputs one line at a time with bounded memory, and
// quoting what was found in them readably in messages.
//
// A line longer than kMaxLineBytes stops the reading with an error instead of
// being read whole: no input of ours has such lines, and a broken or hostile
// file must not make a tool hold (or print) megabytes of one line. A UTF-8
// byte-order mark at the very start of a file is skipped.
#ifndef QVNLIB_TOOLS_CORE_TEXT_INPUT_H
#define QVNLIB_TOOLS_CORE_TEXT_INPUT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace qvn_tools {

constexpr size_t kMaxLineBytes = 4096;

class LineReader {
 public:
  LineReader() = default;
  LineReader(const LineReader &) = delete;
  LineReader &operator=(const LineReader &) = delete;
  ~LineReader();

  // Opens a file; false with "<path>: cannot open the file: <reason>" (or "is a
  // directory") in *error.
  bool Open(const std::string &path, std::string *error);
  // Reads from memory instead (the bytes must outlive the reader); name is
  // used in messages.
  void OpenMemory(const char *data, size_t size, const std::string &name);

  // The next line without its '\n' (nor a '\r' before it). False at the end
  // of the input or on an error, which error() then describes.
  bool Next(std::string_view *line);

  const std::string &name() const { return name_; }
  const std::string &error() const { return error_; }
  int line() const { return line_; }                   // 1-based number of the last line returned
  uint64_t bytes_read() const { return consumed_; }    // input consumed so far
  uint64_t size() const { return size_; }              // 0 when not known (a pipe)
  // "<name>:<line>: " for messages about the current line.
  std::string Where() const;

 private:
  bool Fill();

  int fd_ = -1;
  const char *mem_ = nullptr;
  std::vector<char> buf_;
  size_t pos_ = 0, end_ = 0;
  bool eof_ = false;
  int line_ = 0;
  uint64_t consumed_ = 0, size_ = 0;
  std::string name_, error_;
};

// s in single quotes for a message: cut after max_chars (with the full length
// said), bytes that are not printable ASCII written as \xHH.
std::string Quoted(std::string_view s, size_t max_chars = 40);

}  // namespace qvn_tools

#endif  // QVNLIB_TOOLS_CORE_TEXT_INPUT_H
