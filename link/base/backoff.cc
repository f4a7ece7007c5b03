#include "link/base/backoff.h"

#include <algorithm>

namespace vexlink {

Backoff::Duration Backoff::Next() {
  const Duration whole = next_;
  next_ = std::min(next_ * 2, most_);
  return Duration(std::uniform_int_distribution<Duration::rep>(whole.count() / 2, whole.count())(random_));
}

}  // namespace vexlink
