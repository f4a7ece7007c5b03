#include "child.h"

#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <utility>

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
  pid_ = fork();
  if (pid_ < 0) Die("cannot fork");
  if (pid_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    close(fds[0]);
    serve([fd = fds[1]] {
      if (write(fd, "r", 1) != 1) _exit(1);
      close(fd);
    });
    _exit(0);
  }
  close(fds[1]);
  pollfd ready{fds[0], POLLIN, 0};
  char byte = 0;
  if (poll(&ready, 1, kReadyTimeoutMs) != 1 || read(fds[0], &byte, 1) != 1) Die("the server did not start");
  close(fds[0]);
}

Child::~Child() {
  if (pid_ > 0) Stop();
}

rusage Child::Stop() {
  rusage used{};
  kill(pid_, SIGKILL);
  wait4(std::exchange(pid_, -1), nullptr, 0, &used);
  return used;
}

std::string UniqueName(const std::string& name) { return "bench-" + name + "-" + std::to_string(getpid()); }

}  // namespace bench
