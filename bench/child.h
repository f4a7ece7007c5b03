// A server in a process of its own, forked before this process starts any thread.
#ifndef BENCH_CHILD_H_
#define BENCH_CHILD_H_

#include <sys/resource.h>

#include <functional>
#include <optional>

#include "platform/testing/child_process.h"

namespace bench {

// Runs `serve(ready)` in a child; the child calls `ready` once it takes requests. The constructor returns then, or ends
// the program with a message when the child has not called it within 10 s. The destructor kills the child, which also
// ends when this process does. The only child of its process.
class Child {
 public:
  explicit Child(const std::function<void(const std::function<void()>& ready)>& serve);

  // Kills the child, once, and returns all that it has used since it was forked.
  rusage Stop();

 private:
  std::optional<vextest::ForkedChild> process_;
};

}  // namespace bench

#endif  // BENCH_CHILD_H_
