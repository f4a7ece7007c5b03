// The list behind a menu, shared with the handles to its commands.
#ifndef KLBASE_CLI_COMMAND_LIST_H_
#define KLBASE_CLI_COMMAND_LIST_H_

#include <memory>
#include <vector>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "cli/command.h"

namespace cli {

// Copy-on-write: readers take a snapshot and walk it without a lock, so a command may change the menu that it runs
// from. Any thread.
class CommandList {
 public:
  using Commands = std::vector<std::shared_ptr<Command>>;

  void Add(std::shared_ptr<Command> command);
  void Remove(const Command* command);
  // Never null.
  std::shared_ptr<const Commands> Snapshot() const;

 private:
  mutable absl::Mutex mutex_;
  std::shared_ptr<const Commands> commands_ ABSL_GUARDED_BY(mutex_) = std::make_shared<const Commands>();
};

}  // namespace cli

#endif  // KLBASE_CLI_COMMAND_LIST_H_
