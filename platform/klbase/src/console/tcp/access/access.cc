#include "console/tcp/access/access.h"

#include <crypt.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>

namespace cli::internal {
namespace {

class File {
 public:
  // Not through a link, which others may have put there; and without waiting for the other end of a FIFO.
  explicit File(const std::string& path)
      : fd_(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY)) {}
  ~File() {
    if (fd_ >= 0) ::close(fd_);
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  int Fd() const { return fd_; }

 private:
  const int fd_;
};

[[noreturn]] void Refuse(const std::string& file, const std::string& why) {
  throw std::runtime_error("password file " + file + " (KLBASE_CONSOLE_PASSWORD_FILE): " + why);
}

// "" when `hash` is not a hash. The structure is too large for a stack.
std::string Crypt(const std::string& password, const std::string& hash) {
  const auto data = std::make_unique<crypt_data>();
  const char* result = crypt_r(password.c_str(), hash.c_str(), data.get());
  return result == nullptr || result[0] == '*' ? "" : result;
}

// Of the file that was opened, whatever its name may lead to by now: a password that others may set or read keeps
// nobody out.
void CheckRights(const std::string& path, const File& file) {
  struct stat status {};
  if (::fstat(file.Fd(), &status) != 0) Refuse(path, std::string("can't be looked at: ") + std::strerror(errno));
  if (!S_ISREG(status.st_mode)) Refuse(path, "is not a regular file");
  if (status.st_uid != 0 && status.st_uid != ::geteuid()) {
    Refuse(path, "belongs to user " + std::to_string(status.st_uid) + ", who could change it; give it to user " +
                     std::to_string(::geteuid()) + ", who runs the console, or to root: chown " +
                     std::to_string(::geteuid()) + " " + path);
  }
  if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
    Refuse(path, "is open to its group or to others; take their rights away: chmod 600 " + path);
  }
}

}  // namespace

std::string ReadPasswordHash(const std::string& path) {
  const File file(path);
  if (file.Fd() < 0 && errno == ELOOP) Refuse(path, "is a link; name the file itself");
  if (file.Fd() < 0) Refuse(path, std::string("can't be opened: ") + std::strerror(errno));
  CheckRights(path, file);
  char buffer[1024];
  const ssize_t count = ::read(file.Fd(), buffer, sizeof buffer);
  if (count < 0) Refuse(path, std::string("can't be read: ") + std::strerror(errno));
  std::string hash(buffer, static_cast<std::size_t>(count));
  hash.erase(std::min(hash.find_first_of("\r\n"), hash.size()));
  // A result of another length means that this is a salt at best: a password written in the clear may be one.
  if (hash.empty() || Crypt("", hash).size() != hash.size()) {
    Refuse(path, "holds no crypt(3) hash in its first line; make one with: mkpasswd > FILE");
  }
  return hash;
}

bool PasswordMatches(const std::string& password, const std::string& hash) {
  const std::string result = Crypt(password, hash);
  if (result.empty() || result.size() != hash.size()) return false;
  unsigned char difference = 0;  // in a time that tells nothing of where they differ
  for (std::size_t i = 0; i < hash.size(); ++i) difference |= static_cast<unsigned char>(result[i] ^ hash[i]);
  return difference == 0;
}

}  // namespace cli::internal
