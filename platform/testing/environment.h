// The environment and the names that this process shares with others.
#ifndef PLATFORM_TESTING_ENVIRONMENT_H_
#define PLATFORM_TESTING_ENVIRONMENT_H_

#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <optional>
#include <string>

namespace vextest {

// Sets an environment variable, or takes it away, while it lives; then it is as before. Used while no other thread
// looks at the environment.
class ScopedVariable {
 public:
  ScopedVariable(std::string name, const std::optional<std::string>& value) : name_(std::move(name)) {
    if (const char* before = getenv(name_.c_str())) before_ = before;
    Set(value);
  }
  ScopedVariable(const ScopedVariable&) = delete;
  ScopedVariable& operator=(const ScopedVariable&) = delete;
  ~ScopedVariable() { Set(before_); }

 private:
  void Set(const std::optional<std::string>& value) const {
    value ? setenv(name_.c_str(), value->c_str(), 1) : unsetenv(name_.c_str());
  }

  const std::string name_;
  std::optional<std::string> before_;
};

// A name that no other process and no earlier call uses, for a socket or an address: "encd-1234-1". Any thread.
inline std::string UniqueName(const std::string& stem) {
  static std::atomic<int> count = 0;
  return stem + "-" + std::to_string(getpid()) + "-" + std::to_string(++count);
}

}  // namespace vextest

#endif  // PLATFORM_TESTING_ENVIRONMENT_H_
