#include "child.h"

#include <poll.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>

namespace bench {

namespace {

constexpr int kReadyTimeoutMs = 10'000;

[[noreturn]] void Die(const char* text) {
  std::fprintf(stderr, "%s\n", text);
  std::exit(1);
}

}  // namespace

Child::Child(const std::function<void(const std::function<void()>& ready)>& serve) {
  int fds[2];
  if (pipe(fds) != 0) Die("cannot make a pipe");
  process_.emplace([&] {
    close(fds[0]);
    serve([fd = fds[1]] {
      if (write(fd, "r", 1) != 1) _exit(1);
      close(fd);
    });
  });
  close(fds[1]);
  pollfd ready{fds[0], POLLIN, 0};
  char byte = 0;
  if (poll(&ready, 1, kReadyTimeoutMs) != 1 || read(fds[0], &byte, 1) != 1) Die("the server did not start");
  close(fds[0]);
}

rusage Child::Stop() {
  process_->Signal(SIGKILL);
  process_.reset();
  rusage used{};
  getrusage(RUSAGE_CHILDREN, &used);  // of those that were waited for: of this one
  return used;
}

}  // namespace bench
