#include "ctl/line_file.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "ctl/arguments.h"

namespace vexctl {

LineFile::LineFile(std::string name, int interrupt_fd) : name_(std::move(name)), interrupt_fd_(interrupt_fd) {
  if (name_ == "-") {
    name_ = "standard input";
    fd_ = STDIN_FILENO;
  } else {
    // Not waiting for a named pipe's writer here, but where an interrupt is seen, too.
    fd_ = ::open(name_.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    owned_ = fd_ >= 0;
    end_ = fd_ < 0;
    if (end_) error_ = std::string("can't be opened: ") + std::strerror(errno);
  }
}

LineFile::~LineFile() {
  if (owned_) ::close(fd_);
}

bool LineFile::WaitForMore() {
  pollfd ready[2] = {{fd_, POLLIN, 0}, {interrupt_fd_, POLLIN, 0}};
  while (::poll(ready, 2, -1) < 0 && errno == EINTR) {
  }
  interrupted_ = ready[1].revents != 0;
  return !interrupted_;
}

bool LineFile::ReadMore() {
  if (end_ || !error_.empty()) return false;
  char bytes[4096];
  ssize_t count = 0;
  do {
    if (!WaitForMore()) {
      end_ = true;
      read_.clear();
      return false;
    }
    count = ::read(fd_, bytes, sizeof bytes);
  } while (count < 0 && (errno == EINTR || errno == EAGAIN));
  if (count < 0) error_ = std::string("can't be read: ") + std::strerror(errno);
  if (count > 0) read_.append(bytes, static_cast<std::size_t>(count));
  end_ = count <= 0;
  return count > 0;
}

std::optional<LineFile::Line> LineFile::Next() {
  for (;;) {
    if (read_.find('\n') == std::string::npos && read_.size() <= kMaxLine + 1 && ReadMore()) continue;
    if (!error_.empty()) return Line{number_, "", std::exchange(error_, "")};
    if (read_.empty()) return std::nullopt;
    std::size_t end = read_.find('\n');
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
