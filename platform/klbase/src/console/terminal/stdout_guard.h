// Text that other threads print on std::cout waits for its turn in the local session's output, so that it neither
// garbles a line being typed at a terminal nor overtakes a command's answer on its way to a file or pipe.
#ifndef KLBASE_CONSOLE_TERMINAL_STDOUT_GUARD_H_
#define KLBASE_CONSOLE_TERMINAL_STDOUT_GUARD_H_

#include <memory>

namespace cli::internal {

class ConsoleSession;

// While one exists, whole lines written to std::cout go out through `session`, above its prompt if it has one; the
// beginning of a line waits for its end or for a flush. Text written with C's stdio or to std::cerr goes its own way.
class StdoutGuard {
 public:
  explicit StdoutGuard(std::shared_ptr<ConsoleSession> session);
  ~StdoutGuard();
  StdoutGuard(const StdoutGuard&) = delete;
  StdoutGuard& operator=(const StdoutGuard&) = delete;
};

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_TERMINAL_STDOUT_GUARD_H_
