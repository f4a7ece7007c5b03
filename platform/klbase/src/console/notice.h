// The consoles that show the notices of cli/notice.h.
#ifndef KLBASE_CONSOLE_NOTICE_H_
#define KLBASE_CONSOLE_NOTICE_H_

#include <memory>
#include <string_view>

#include "cli/notice.h"

namespace cli::internal {

class ShowsNotices {
 public:
  virtual ~ShowsNotices() = default;
  // A whole line with its end. Any thread, without a lock.
  virtual void ShowNotice(std::string_view line) = 0;
};

// From now on as long as it lives.
void AddToNotices(const std::shared_ptr<ShowsNotices>& console);

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_NOTICE_H_
