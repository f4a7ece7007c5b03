#include "ctl/interrupt.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>

namespace vexctl {
namespace {

int ends[2] = {-1, -1};

void Note(int) {
  const int error = errno;
  const char byte = 0;
  if (::write(ends[1], &byte, 1) < 0) {
    // The pipe is full of interrupts already.
  }
  errno = error;
}

}  // namespace

void CatchInterrupts() {
  struct sigaction before {};
  ::sigaction(SIGINT, nullptr, &before);
  if (before.sa_handler == SIG_IGN || ::pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) return;
  struct sigaction action {};
  action.sa_handler = Note;
  ::sigaction(SIGINT, &action, nullptr);
}

int InterruptFd() { return ends[0]; }

bool TakeInterrupt() {
  char bytes[64];
  return ends[0] >= 0 && ::read(ends[0], bytes, sizeof bytes) > 0;
}

}  // namespace vexctl
