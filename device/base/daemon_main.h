// The frame that the device's daemons run in: flags, log, signals, the line that says where they listen, exit status.
#ifndef DEVICE_BASE_DAEMON_MAIN_H_
#define DEVICE_BASE_DAEMON_MAIN_H_

#include <signal.h>

#include <chrono>
#include <functional>
#include <span>
#include <string>

#include "base/gst.h"

namespace device {

// The differences between one daemon and another. The strings must live as long as the process.
struct DaemonProgram {
  const char* name;      // begins the texts on standard error: "encd: …"
  const char* usage;     // begins the text of --help
  const char* source;    // end of the path of the file whose flags --help lists: "encd/main.cc"
  const char* log_file;  // unless KLBASE_LOG_FILE names another
  const char* listens;   // stands before the address in the line of AnnounceListening()
  std::span<const NeededElement> needed;
  bool user_signal = false;  // SIGUSR1 is an event instead of the end of the process
};

// A daemon's time of service. Wait() is for one thread, the rest for any.
class DaemonLife {
 public:
  enum class Event {
    kStop,        // SIGTERM, SIGINT or Stop(); from here on the process ends within 5 s, with status 1 if it hangs
    kUserSignal,  // SIGUSR1
    kTimeout,
  };

  // Blocks the signals in this thread and in threads that it starts later, so that only Wait() takes them.
  explicit DaemonLife(const DaemonProgram& program);

  // Writes the address to the log and, as a line of its own, to standard output: scripts wait for it.
  void AnnounceListening(const std::string& address) const;

  // Waits for the next event, as long as `limit`; a limit of 0 is none.
  Event Wait(std::chrono::seconds limit = std::chrono::seconds(0)) const;

  // Makes Wait() return kStop.
  static void Stop();

 private:
  const DaemonProgram program_;
  sigset_t signals_;
};

// The whole of main(). Parses the flags, begins the log, looks for the needed elements, then runs `serve`, which
// serves until DaemonLife::Wait() says kStop and returns the exit status. An exception out of it, such as the address
// being in use by a daemon that runs already, is written to the log and to standard error; the status is then 1, as
// for words that are not flags.
int DaemonMain(int argc, char** argv, const DaemonProgram& program, const std::function<int(const DaemonLife&)>& serve);

}  // namespace device

#endif  // DEVICE_BASE_DAEMON_MAIN_H_
