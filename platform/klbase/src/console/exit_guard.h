// Stops consoles when the process exits, before static objects are destroyed.
#ifndef KLBASE_CONSOLE_EXIT_GUARD_H_
#define KLBASE_CONSOLE_EXIT_GUARD_H_

#include <memory>

namespace cli::internal {

class StopsAtExit {
 public:
  virtual ~StopsAtExit() = default;
  // Called on the thread that exits. Returns false when a command could not be ended: the process then ends at once,
  // with its status, because the command would run into destroyed objects.
  virtual bool StopForExit() = 0;
};

// Registers an exit handler that stops `console`, unless it is gone by then.
void StopAtExit(const std::shared_ptr<StopsAtExit>& console);

// Keeps `object` until the process is gone: a command that could not be ended still uses it.
void KeepForGood(std::shared_ptr<void> object);

// Whether the exit handler has begun on another thread.
bool ExitingElsewhere();

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_EXIT_GUARD_H_
