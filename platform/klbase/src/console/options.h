// A console's settings.
#ifndef KLBASE_CONSOLE_OPTIONS_H_
#define KLBASE_CONSOLE_OPTIONS_H_

#include <unistd.h>

#include <chrono>
#include <string>

namespace cli::internal {

// Where the control socket is.
struct ControlSocketPath {
  std::string path;          // "": there is none
  bool asked_for = false;    // a console that can't have it must not start
  bool make_folder = false;  // its folder is ours to make
};

// Tests shorten the times.
struct ConsoleOptions {
  bool local_console = false;
  int port = 0;
  std::string address = "127.0.0.1";
  std::string password_file;         // "": no password is asked for
  std::string allow;                 // the users of this machine that may come, where no password is asked for
  int max_sessions = 64;             // on connections; the local terminal is not counted
  ControlSocketPath control_socket;  // for programs of this machine
  std::string history_file;          // of the local terminal
  std::string metrics_file;          // "": none is written
  int input_fd = STDIN_FILENO;
  int output_fd = STDOUT_FILENO;

  std::chrono::milliseconds idle{0};           // a session without input ends; 0: never
  std::chrono::milliseconds sniff{100};        // a program speaks first
  std::chrono::milliseconds reader{30'000};    // an operator who reads nothing for so long is gone
  std::chrono::milliseconds login{60'000};     // to give the password
  std::chrono::milliseconds login_delay{200};  // after a wrong one, for its address; more after more
  std::chrono::milliseconds linger{1000};      // for the last bytes to arrive
  std::chrono::milliseconds stop{4000};        // for commands under way when the console ends
  std::chrono::milliseconds drain{1000};       // for readers when the console ends
};

// The options, with those that the environment sets: KLBASE_CONSOLE_ADDRESS, KLBASE_CONSOLE_PASSWORD_FILE,
// KLBASE_CONSOLE_ALLOW, KLBASE_CONSOLE_MAX_SESSIONS, KLBASE_CONSOLE_IDLE_MINUTES, KLBASE_CONSOLE_SOCKET and
// KLBASE_METRICS_FILE. Throws
// std::runtime_error for a value that makes no sense.
ConsoleOptions OptionsFromEnvironment(bool local_console, int port);

// KLBASE_CONSOLE_SOCKET, where "none" means none; else `service_folder`/console.sock where that folder is writable;
// else vextool/console.sock below XDG_RUNTIME_DIR; else none.
ControlSocketPath ControlSocketFromEnvironment(const std::string& service_folder = "/run/vextool");

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_OPTIONS_H_
