#include "console/control/socket_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace cli::internal {
namespace {

constexpr mode_t kMode = 0660;

sockaddr_un AddressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  return address;
}

// Whether two names lead to one file; `fd` may be of one that was removed.
bool IsFileAt(int fd, const std::string& path) {
  struct stat opened {};
  struct stat named {};
  return ::fstat(fd, &opened) == 0 && ::lstat(path.c_str(), &named) == 0 && opened.st_dev == named.st_dev &&
         opened.st_ino == named.st_ino;
}

// Somebody listens, though perhaps too many clients wait.
bool IsServed(const std::string& path) {
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) return true;  // not known: left alone
  const sockaddr_un address = AddressOf(path);
  const bool served =
      ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 || errno != ECONNREFUSED;
  ::close(fd);
  return served;
}

}  // namespace

SocketFile::SocketFile(std::string path) : path_(std::move(path)), lock_path_(path_ + ".lock") {
  if (path_.size() >= sizeof(sockaddr_un{}.sun_path)) {
    Refuse("its name is longer than " + std::to_string(sizeof(sockaddr_un{}.sun_path) - 1) +
           " bytes; choose a shorter one");
  }
  try {
    Lock();
    RemoveStale();
    Listen();
  } catch (...) {
    Release();
    throw;
  }
}

SocketFile::~SocketFile() { Release(); }

void SocketFile::Refuse(const std::string& why) const {
  throw std::runtime_error("console control socket " + path_ + ": " + why);
}

void SocketFile::Lock() {
  do {
    if (lock_fd_ >= 0) ::close(lock_fd_);
    lock_fd_ = ::open(lock_path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600);
    if (lock_fd_ < 0) {
      Refuse("its folder can't be used (" + lock_path_ + ": " + std::strerror(errno) +
             "); make the folder, or name another one in KLBASE_CONSOLE_SOCKET");
    }
    if (::flock(lock_fd_, LOCK_EX | LOCK_NB) != 0) {
      ::close(std::exchange(lock_fd_, -1));  // another one's: it stays
      Refuse("another process serves it; end that one, or name another one in KLBASE_CONSOLE_SOCKET");
    }
    // The holder before may have removed the file after it was opened here: another process may lock its successor.
  } while (!IsFileAt(lock_fd_, lock_path_));
}

void SocketFile::RemoveStale() const {
  struct stat found {};
  if (::lstat(path_.c_str(), &found) != 0) return;
  if (!S_ISSOCK(found.st_mode)) {
    Refuse("something else has this name; remove it, or name another one in KLBASE_CONSOLE_SOCKET");
  }
  // Of a program that knows nothing of the lock.
  if (IsServed(path_)) Refuse("another process serves it; end that one, or name another one in KLBASE_CONSOLE_SOCKET");
  ::unlink(path_.c_str());
}

void SocketFile::Listen() {
  fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  const sockaddr_un address = AddressOf(path_);
  if (fd_ < 0 || ::bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    Refuse(std::string("can't be made: ") + std::strerror(errno));
  }
  struct stat made {};
  // Nobody can connect before listen(), so the mode that bind() gave it lets nobody in.
  if (::lstat(path_.c_str(), &made) != 0 || ::chmod(path_.c_str(), kMode) != 0 || ::listen(fd_, SOMAXCONN) != 0) {
    Refuse(std::string("can't be listened on: ") + std::strerror(errno));
  }
  device_ = made.st_dev;
  inode_ = made.st_ino;
}

void SocketFile::Release() {
  struct stat named {};
  const bool ours =
      inode_ != 0 && ::lstat(path_.c_str(), &named) == 0 && named.st_dev == device_ && named.st_ino == inode_;
  if (ours) ::unlink(path_.c_str());
  if (fd_ >= 0) ::close(std::exchange(fd_, -1));
  if (lock_fd_ < 0) return;
  // Before the lock is given back: whoever gets it then makes a file of his own.
  if (IsFileAt(lock_fd_, lock_path_)) ::unlink(lock_path_.c_str());
  ::close(std::exchange(lock_fd_, -1));
}

}  // namespace cli::internal
