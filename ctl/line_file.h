// The lines of a script: a file's, or those of standard input.
#ifndef CTL_LINE_FILE_H_
#define CTL_LINE_FILE_H_

#include <cstddef>
#include <optional>
#include <string>

namespace vexctl {

// Read as far as it is asked for: a script may come through a pipe, line by line, and one without line ends costs no
// memory. One thread.
class LineFile {
 public:
  static constexpr std::size_t kMaxLine = 4096;  // as the tool has it

  struct Line {
    std::size_t number = 0;  // from 1
    std::string text;        // without its comment; not blank
    std::string error;       // "" unless the file can't be read, or this line; it is the last one then
  };

  // "-" is standard input. Everything that waits ends when `interrupt_fd` is readable; -1: never.
  explicit LineFile(std::string name, int interrupt_fd = -1);
  LineFile(const LineFile&) = delete;
  LineFile& operator=(const LineFile&) = delete;
  ~LineFile();

  // For messages.
  const std::string& Name() const { return name_; }
  // The next line that says something; none at the end, and when it was interrupted.
  std::optional<Line> Next();
  bool WasInterrupted() const { return interrupted_; }

 private:
  // False when it was interrupted.
  bool WaitForMore();
  // False when nothing more comes; `error_` says so where it is an error.
  bool ReadMore();

  std::string name_;
  const int interrupt_fd_;
  int fd_ = -1;
  bool owned_ = false;
  bool end_ = false;
  bool interrupted_ = false;
  std::string error_;
  std::string read_;
  std::size_t number_ = 0;
};

}  // namespace vexctl

#endif  // CTL_LINE_FILE_H_
