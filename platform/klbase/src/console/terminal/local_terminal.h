// The process's own terminal: its mode, restored whatever way the process ends, and the signals that belong to it.
#ifndef KLBASE_CONSOLE_TERMINAL_LOCAL_TERMINAL_H_
#define KLBASE_CONSOLE_TERMINAL_LOCAL_TERMINAL_H_

#include <memory>

namespace cli::internal {

// At most one exists at a time. Created, used and destroyed by one thread, but for Restore().
//
// Ctrl-C stays the interrupt signal, whose handler is the program's own; without one it ends the process. While a
// command runs it can be made a key that is read. The terminal is restored by the destructor, by an exit handler's
// Restore(), and before the process dies of a signal (SIGTERM, SIGHUP, SIGQUIT, SIGSEGV, SIGBUS, SIGFPE, SIGILL,
// SIGABRT): handlers for these are put before the ones that were installed when it is created, which then see the
// signal as if nothing had happened. SIGKILL leaves the terminal as it is; "stty sane" helps.
class LocalTerminal {
 public:
  // Who edits the typed line: in raw mode the keys come one by one; else the terminal gives whole lines.
  enum class Editing { kRaw, kByTerminal };
  enum class Event { kNone, kResized, kStop, kContinued };
  struct Size {
    int columns = 0;  // 0: not known
    int rows = 0;
  };

  // Takes over the terminal on `input_fd`, which must be one, and is shown through `output_fd`.
  LocalTerminal(int input_fd, int output_fd, Editing editing);
  ~LocalTerminal();
  LocalTerminal(const LocalTerminal&) = delete;
  LocalTerminal& operator=(const LocalTerminal&) = delete;

  // Readable when TakeEvent() has something.
  int EventFd() const;
  // One event at a time, in the order of the signals; kNone when there is none.
  Event TakeEvent();
  // Stops the process as Ctrl-Z asks, with the terminal restored; returns when it is continued.
  void StopProcess();
  // Sets the mode again if this process is in the foreground.
  void EnterMode();
  // Whether Ctrl-C is read as a key.
  void ReadInterruptKey(bool read);

  static Size WindowSize(int fd);
  // Puts the terminal back as it was, out of bracketed paste too. Any thread, also in a signal handler.
  static void Restore();

 private:
  const Editing editing_;
  bool read_interrupt_key_ = false;
};

// Opens the terminal behind `fd` once more for writing, non-blocking: the flag would otherwise be shared with the
// shell. -1 when that doesn't work.
int OpenTerminalForWriting(int fd);

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_TERMINAL_LOCAL_TERMINAL_H_
