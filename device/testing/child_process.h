// A program run by a test. Killed and waited for at the latest on destruction.
#ifndef DEVICE_TESTING_CHILD_PROCESS_H_
#define DEVICE_TESTING_CHILD_PROCESS_H_

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace device::testing {

class ChildProcess {
 public:
  // `words` are the program's path and arguments, `environment` more variables ("NAME=value"). Standard output and
  // standard error go to one place, Output().
  explicit ChildProcess(const std::vector<std::string>& words, const std::vector<std::string>& environment = {});
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  ~ChildProcess();

  pid_t pid() const { return pid_; }
  void Signal(int signal) const;

  // True once the output has `text`; false when it hadn't within `limit` or the program has ended without it.
  bool WaitForOutput(const std::string& text, std::chrono::milliseconds limit = std::chrono::seconds(20));

  // The exit status, or 128 + the signal that ended it; nothing when it still runs after `limit`.
  std::optional<int> Wait(std::chrono::milliseconds limit = std::chrono::seconds(10));

  std::string Output();

 private:
  void ReadOutput();

  pid_t pid_ = -1;
  int out_ = -1;
  std::string output_;
  std::optional<int> status_;
};

}  // namespace device::testing

#endif  // DEVICE_TESTING_CHILD_PROCESS_H_
