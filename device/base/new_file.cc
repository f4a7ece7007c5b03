#include "base/new_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace device {

// O_EXCL follows no link, not even one that leads nowhere.
NewFile::NewFile(const std::string& path)
    : fd_(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644)),
      error_(fd_ < 0 ? errno : 0) {}

NewFile::~NewFile() {
  if (fd_ >= 0) close(fd_);
}

std::string NewFile::Name() const { return "/proc/self/fd/" + std::to_string(fd_); }

}  // namespace device
