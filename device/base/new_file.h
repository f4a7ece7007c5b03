// A file that a daemon writes, which nobody else has put in the way.
#ifndef DEVICE_BASE_NEW_FILE_H_
#define DEVICE_BASE_NEW_FILE_H_

#include <string>

namespace device {

// Creates `path` for writing: a new file of this process's user, never one that is there already or that a link leads
// to. Used by one thread at a time; stays open as long as this lives.
class NewFile {
 public:
  explicit NewFile(const std::string& path);
  NewFile(const NewFile&) = delete;
  NewFile& operator=(const NewFile&) = delete;
  ~NewFile();

  // 0, or the errno that says why it could not be created.
  int Error() const { return error_; }
  // A name that leads to this very file while it is open, whatever happens to its path; for code that opens by name.
  std::string Name() const;

 private:
  const int fd_;
  const int error_;
};

}  // namespace device

#endif  // DEVICE_BASE_NEW_FILE_H_
