// Ctrl-C, and the other signals that end what is under way.
#ifndef CTL_INTERRUPT_H_
#define CTL_INTERRUPT_H_

namespace vexctl {

// From now on SIGINT no longer ends the process, but is noted, unless it is ignored: a program in the background of a
// script stays uninterruptible.
void CatchInterrupts();

// Readable while an interrupt is noted; -1 before CatchInterrupts(), which poll() leaves out.
int InterruptFd();

// Whether one was noted since the last call.
bool TakeInterrupt();

}  // namespace vexctl

#endif  // CTL_INTERRUPT_H_
