#include "console/exit_guard.h"

#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <thread>
#include <utility>
#include <vector>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"

namespace cli::internal {
namespace {

struct Consoles {
  absl::Mutex mutex;
  std::vector<std::weak_ptr<StopsAtExit>> list ABSL_GUARDED_BY(mutex);
  std::vector<std::shared_ptr<void>> kept ABSL_GUARDED_BY(mutex);
};

// Never destroyed: it is used while static objects are.
Consoles& AllConsoles() {
  static auto& consoles = *new Consoles();
  return consoles;
}

std::atomic<bool> g_exiting{false};
std::atomic<std::thread::id> g_exit_thread{};

// Registered once per console; the first call stops them all.
void StopAll(int status, void*) {
  g_exit_thread = std::this_thread::get_id();
  g_exiting = true;
  std::vector<std::weak_ptr<StopsAtExit>> list;
  {
    Consoles& consoles = AllConsoles();
    absl::MutexLock lock(&consoles.mutex);
    list.swap(consoles.list);
  }
  bool ended = true;
  for (const auto& weak : list) {
    if (const auto console = weak.lock()) ended = console->StopForExit() && ended;
  }
  if (!ended) ::_exit(status);
}

}  // namespace

void StopAtExit(const std::shared_ptr<StopsAtExit>& console) {
  Consoles& consoles = AllConsoles();
  {
    absl::MutexLock lock(&consoles.mutex);
    std::erase_if(consoles.list, [](const auto& weak) { return weak.expired(); });
    consoles.list.push_back(console);
  }
  // Anew for each console: exit handlers and destructors of static objects run in the reverse order of their
  // registration, so all objects that were constructed before this console are still there when it is stopped.
  ::on_exit(StopAll, nullptr);
}

void KeepForGood(std::shared_ptr<void> object) {
  Consoles& consoles = AllConsoles();
  absl::MutexLock lock(&consoles.mutex);
  consoles.kept.push_back(std::move(object));
}

bool ExitingElsewhere() { return g_exiting && g_exit_thread.load() != std::this_thread::get_id(); }

}  // namespace cli::internal
