// The console: serves operators on a telnet-style port and, if asked, on the process's own terminal.
#ifndef CLI_CONSOLE_H_
#define CLI_CONSOLE_H_

#include <memory>

#include "cli/menu.h"
#include "klbase/export.h"

namespace cli {

// Owned by its creator. Its threads: one for the I/O of all connections, and one per session that runs commands.
class KLBASE_EXPORT Console {
 public:
  Console() = default;
  Console(const Console&) = delete;
  Console& operator=(const Console&) = delete;
  // Stops the console and joins its threads.
  virtual ~Console() = default;

  // Serves operators until the console ends: `exit` or the end of input at the local terminal, `shutdown` in any
  // session, or Stop(). Call it once. Does not return when the process is already exiting.
  virtual void Run() = 0;

  // Ends the console: accepts no more, closes all sessions, joins their threads (a command under way gets up to 4 s)
  // and restores the terminal. Any thread but a command's; calling it again does nothing.
  virtual void Stop() = 0;

  // The TCP port that the console listens on.
  virtual int Port() const = 0;
};

class KLBASE_EXPORT ConsoleFactory {
 public:
  // Takes the root menu, creates every registered plugin on it (which keeps them alive while the console lives), and
  // listens on `port` (0 picks a free one) of 127.0.0.1 or KLBASE_CONSOLE_ADDRESS; `local_console` also serves the
  // process's terminal, or standard input line by line when that is not a terminal.
  //
  // Throws std::runtime_error with a text for the operator when the port is out of range or in use, or the address may
  // not be served. Registers an exit handler that stops the console before static objects are destroyed.
  static std::unique_ptr<Console> Create(std::unique_ptr<Menu> root, bool local_console, int port);
};

}  // namespace cli

#endif  // CLI_CONSOLE_H_
