// The control socket's file: listened on by one process at a time, and gone with it.
#ifndef KLBASE_CONSOLE_CONTROL_SOCKET_FILE_H_
#define KLBASE_CONSOLE_CONTROL_SOCKET_FILE_H_

#include <sys/types.h>

#include <string>

namespace cli::internal {

// A socket that is listened on at a path of the file system, mode 0660. Beside it lies a lock file, PATH.lock, which
// is locked as long as this lives: whoever has the lock may replace the socket's file. A bind to another name and a
// rename would replace it in one step as well, but can't tell the file of a process that died from that of one that has
// just bound its own: between the look at the old socket and the rename another process may have come. The kernel
// gives the lock back however its holder ends, so what a killed process leaves keeps nobody out.
class SocketFile {
 public:
  // Throws std::runtime_error, with a text for the operator, when there can't be such a socket: another process listens
  // there, the folder is missing, something else has the name.
  explicit SocketFile(std::string path);
  // Removes both files.
  ~SocketFile();
  SocketFile(const SocketFile&) = delete;
  SocketFile& operator=(const SocketFile&) = delete;

  // Non-blocking, closed on exec; this object's.
  int Fd() const { return fd_; }
  const std::string& Path() const { return path_; }

 private:
  void Lock();
  void RemoveStale() const;
  void Listen();
  void Release();
  [[noreturn]] void Refuse(const std::string& why) const;

  const std::string path_;
  const std::string lock_path_;
  int lock_fd_ = -1;
  int fd_ = -1;
  dev_t device_ = 0;  // of the socket's file
  ino_t inode_ = 0;
};

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_CONTROL_SOCKET_FILE_H_
