// Keeps what other threads print on std::cout from garbling the line that is being typed at the local terminal.
#ifndef KLBASE_CONSOLE_STDOUT_GUARD_H_
#define KLBASE_CONSOLE_STDOUT_GUARD_H_

#include <memory>

namespace cli::internal {

class SessionImpl;

// While one exists, whole lines written to std::cout are shown above the prompt of `session`; the beginning of a line
// waits for its end or for a flush. Text written with C's stdio or to std::cerr goes its own way.
class StdoutGuard {
 public:
  explicit StdoutGuard(std::shared_ptr<SessionImpl> session);
  ~StdoutGuard();
  StdoutGuard(const StdoutGuard&) = delete;
  StdoutGuard& operator=(const StdoutGuard&) = delete;
};

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_STDOUT_GUARD_H_
