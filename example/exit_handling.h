// How the process ends: by the console's end, by an exception or by an interrupt (SIGINT), whichever comes first.
//
// SIGINT is blocked in every thread but one, which does nothing but wait for it, so that the handler may do what a
// handler otherwise must not: no thread that it interrupts holds a lock. The first way to end the process wins; the
// other stands aside, because exit() must not run twice. An interrupt that comes during an end with status 0 still
// makes the status 1.
//
// A program that this process starts inherits the blocked signal: unblock SIGINT in the child (for popen and system,
// `trap - INT` doesn't do it; use posix_spawn with POSIX_SPAWN_SETSIGMASK) where Ctrl-C should end it.
#ifndef EXAMPLE_EXIT_HANDLING_H_
#define EXAMPLE_EXIT_HANDLING_H_

#include <chrono>

namespace vextool {

// How long an interrupt waits for the start to be over, and how long any end of the process may take. After that the
// process leaves at once, with the status that it had.
constexpr std::chrono::seconds kStartLimit{3};
constexpr std::chrono::seconds kEndLimit{5};

// Blocks SIGINT in this thread and those it starts, and SIGRTMIN, with which the thread that waits for it is ended. The
// first thing in main(), before there are other threads. An interrupt from now on waits for InstallInterruptHandler().
void BlockInterrupt();

// Installs `handler` for SIGINT, with an empty mask and no flags, and starts the thread on which it runs.
void InstallInterruptHandler(void (*handler)(int));

// For main(): the modules and the console are there. If an interrupt waits for that, it gets its turn and this never
// returns.
void EndStart();

// For main(): begins the end of the process by return, with `status`. Never returns if an interrupt came first.
void BeginNormalEnd(int status);

// For the handler: begins the end of the process by exit(1), once the start is over. Returns false if main() came
// first: the handler then does nothing, and LateInterrupt the rest. Leaves the process at once when the start isn't
// over in time, because nothing that is still being made can be taken down.
bool BeginInterruptedEnd();

// A static object of this type gives the process its status when it is destroyed; so it is defined before the objects
// that must be destroyed in any case.
class LateInterrupt {
 public:
  LateInterrupt() = default;
  LateInterrupt(const LateInterrupt&) = delete;
  LateInterrupt& operator=(const LateInterrupt&) = delete;
  ~LateInterrupt();
};

}  // namespace vextool

#endif  // EXAMPLE_EXIT_HANDLING_H_
