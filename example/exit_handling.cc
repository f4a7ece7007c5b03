#include "example/exit_handling.h"

#include <pthread.h>
#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <iostream>
#include <string_view>
#include <thread>

#include "absl/synchronization/notification.h"
#include "absl/time/time.h"
#include "klbase/log.h"

namespace vextool {
namespace {

constexpr int kInterruptStatus = 1;
// Ends the wait of the interrupt thread, so that each SIGINT comes from outside.
const int kWake = SIGRTMIN;

std::atomic<bool> end_begun = false;
std::atomic<bool> interrupt_thread_ends = false;
std::atomic<int> end_status = 0;
std::atomic<bool> interrupted_late = false;
// Stays when the process ends on this very thread: destroying a running thread is an error.
std::thread* interrupt_thread = nullptr;

// Never destroyed: the interrupt thread may use it while static objects are.
absl::Notification& StartOver() {
  static auto& over = *new absl::Notification;
  return over;
}

// True for the first caller in the process's life.
bool ClaimEnd() { return !end_begun.exchange(true); }

[[noreturn]] void StandAside() {
  for (;;) pause();
}

void WriteError(std::string_view text) {
  [[maybe_unused]] const auto written = write(STDERR_FILENO, text.data(), text.size());
}

// Whether an interrupt came after main() had begun the end: it was refused, or waits as no thread takes it any more.
bool InterruptedLate() {
  sigset_t waiting;
  return interrupted_late || (sigpending(&waiting) == 0 && sigismember(&waiting, SIGINT) == 1);
}

void OnEndLimit(int) {
  WriteError("vextool: the end takes too long, leaving at once\n");
  _exit(InterruptedLate() ? kInterruptStatus : end_status.load());
}

// From here the process is gone within kEndLimit, even if an exit handler or a destructor waits for ever.
void LimitEnd(int status) {
  end_status = status;
  struct sigaction action = {};
  action.sa_handler = &OnEndLimit;
  sigemptyset(&action.sa_mask);
  sigaction(SIGALRM, &action, nullptr);
  const itimerval limit = {{0, 0}, {kEndLimit.count(), 0}};
  setitimer(ITIMER_REAL, &limit, nullptr);
}

// Both signals are open only inside sigsuspend(), so a handler never interrupts anything else on this thread either.
void WaitForInterrupts() {
  sigset_t open;
  pthread_sigmask(SIG_SETMASK, nullptr, &open);
  sigdelset(&open, SIGINT);
  sigdelset(&open, kWake);
  while (!interrupt_thread_ends) sigsuspend(&open);
}

void EndInterruptThread() {
  if (interrupt_thread == nullptr) return;
  interrupt_thread_ends = true;
  pthread_kill(interrupt_thread->native_handle(), kWake);
  interrupt_thread->join();
  delete interrupt_thread;
  interrupt_thread = nullptr;
}

}  // namespace

void BlockInterrupt() {
  sigset_t interrupt;
  sigemptyset(&interrupt);
  sigaddset(&interrupt, SIGINT);
  sigaddset(&interrupt, kWake);
  pthread_sigmask(SIG_BLOCK, &interrupt, nullptr);
}

void InstallInterruptHandler(void (*handler)(int)) {
  struct sigaction action = {};
  action.sa_handler = handler;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  action.sa_handler = [](int) {};
  sigaction(kWake, &action, nullptr);
  interrupt_thread = new std::thread(&WaitForInterrupts);
}

void EndStart() {
  StartOver().Notify();
  if (end_begun) StandAside();
}

void BeginNormalEnd(int status) {
  if (!StartOver().HasBeenNotified()) StartOver().Notify();
  if (!ClaimEnd()) StandAside();
  LimitEnd(status);
  EndInterruptThread();
}

bool BeginInterruptedEnd() {
  if (!ClaimEnd()) {
    interrupted_late = true;
    return false;
  }
  LimitEnd(kInterruptStatus);
  if (StartOver().WaitForNotificationWithTimeout(absl::FromChrono(kStartLimit))) return true;
  WriteError("vextool: interrupted while a module loads, leaving without unloading\n");
  KL_LOG(40, "interrupted while a module loads, leaving without unloading");
  KlLogDestory();
  _exit(kInterruptStatus);
}

LateInterrupt::~LateInterrupt() {
  if (end_status != 0 || !InterruptedLate()) return;
  std::cout.flush();
  std::fflush(nullptr);
  _exit(kInterruptStatus);
}

}  // namespace vextool
