#include "console/notice.h"

#include <algorithm>
#include <string>
#include <vector>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"

namespace cli {
namespace internal {
namespace {

struct Consoles {
  absl::Mutex mutex;
  std::vector<std::weak_ptr<ShowsNotices>> list ABSL_GUARDED_BY(mutex);
};

// Never destroyed: a notice may be posted while static objects are.
Consoles& AllConsoles() {
  static auto& consoles = *new Consoles();
  return consoles;
}

}  // namespace

void AddToNotices(const std::shared_ptr<ShowsNotices>& console) {
  Consoles& consoles = AllConsoles();
  absl::MutexLock lock(&consoles.mutex);
  std::erase_if(consoles.list, [](const auto& weak) { return weak.expired(); });
  consoles.list.push_back(console);
}

}  // namespace internal

void PostNotice(std::string_view line) {
  std::string text(line);
  std::replace(text.begin(), text.end(), '\n', ' ');
  text += '\n';
  std::vector<std::weak_ptr<internal::ShowsNotices>> list;
  {
    internal::Consoles& consoles = internal::AllConsoles();
    absl::MutexLock lock(&consoles.mutex);
    list = consoles.list;
  }
  for (const auto& weak : list) {
    if (const auto console = weak.lock()) console->ShowNotice(text);
  }
}

}  // namespace cli
