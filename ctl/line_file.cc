#include "ctl/line_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "ctl/arguments.h"

namespace vexctl {

LineFile::LineFile(std::string name) : name_(std::move(name)) {
  if (name_ == "-") {
    name_ = "standard input";
    fd_ = STDIN_FILENO;
  } else {
    fd_ = ::open(name_.c_str(), O_RDONLY | O_CLOEXEC);
    owned_ = fd_ >= 0;
    end_ = fd_ < 0;
    if (end_) error_ = std::string("can't be opened: ") + std::strerror(errno);
  }
}

LineFile::~LineFile() {
  if (owned_) ::close(fd_);
}

bool LineFile::ReadMore() {
  if (end_ || !error_.empty()) return false;
  char bytes[4096];
  ssize_t count = 0;
  do {
    count = ::read(fd_, bytes, sizeof bytes);
  } while (count < 0 && errno == EINTR && !end_);
  if (count < 0) error_ = std::string("can't be read: ") + std::strerror(errno);
  if (count > 0) read_.append(bytes, static_cast<std::size_t>(count));
  end_ = count <= 0;
  return count > 0;
}

std::optional<LineFile::Line> LineFile::Next() {
  for (;;) {
    std::size_t end = read_.find('\n');
    if (end == std::string::npos && read_.size() <= kMaxLine + 1 && ReadMore()) continue;
    if (!error_.empty()) return Line{number_, "", std::exchange(error_, "")};
    if (end == std::string::npos && read_.empty()) return std::nullopt;
    const bool ends = end != std::string::npos;
    if (!ends) end = read_.size();
    Line line{++number_, read_.substr(0, end), ""};
    read_.erase(0, ends ? end + 1 : end);
    if (!line.text.empty() && line.text.back() == '\r') line.text.pop_back();
    if (line.text.size() > kMaxLine) {
      end_ = true;
      read_.clear();
      return Line{line.number, "", "the line is longer than " + std::to_string(kMaxLine) + " bytes"};
    }
    line.text = std::string(WithoutComment(line.text));
    if (line.text.find_first_not_of(" \t") != std::string::npos) return line;
  }
}

}  // namespace vexctl
