// The pauses between attempts to reach something.
#ifndef LINK_BASE_BACKOFF_H_
#define LINK_BASE_BACKOFF_H_

#include <chrono>
#include <random>

namespace vexlink {

// Each pause is about twice the one before, up to a limit, and drawn at random between half of that and all of it, so
// that the links of a fleet don't come back to their server in the same moment. One thread.
class Backoff {
 public:
  using Duration = std::chrono::milliseconds;

  Backoff(Duration first, Duration most) : first_(first), most_(most), next_(first), random_(std::random_device{}()) {}

  Duration Next();
  // It was reached: the next pause is a first one.
  void Reset() { next_ = first_; }

 private:
  const Duration first_;
  const Duration most_;
  Duration next_;
  std::minstd_rand random_;
};

}  // namespace vexlink

#endif  // LINK_BASE_BACKOFF_H_
