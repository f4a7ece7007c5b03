// The words that vexctl was started with.
#ifndef CTL_ARGUMENTS_H_
#define CTL_ARGUMENTS_H_

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vexctl {

// A line to be run, or a file with lines.
struct Source {
  bool is_file = false;
  std::string text;  // the line, or the file's name; "-" is standard input
};

struct Arguments {
  enum class Form {
    kLines,     // `sources`
    kMonitor,   // `words` are its topics and conditions
    kComplete,  // `words` has the line's beginning
    kNoWords,   // an interactive session, or the lines of standard input
    kHelp,
    kVersion,
  };
  Form form = Form::kNoWords;
  std::vector<Source> sources;
  std::vector<std::string> words;
  bool keep_going = false;
  bool json = false;
  bool quiet = false;
  bool is_remote = false;  // sshd runs it for a client
  std::string field;       // "": none
  std::string socket;      // "": where the environment and the tool's own rule say
  std::optional<std::chrono::milliseconds> within;
  std::string error;  // "" when the words make sense
};

// `words` are those behind the program's name.
Arguments ReadArguments(const std::vector<std::string>& words);

// Adds the command that a client of sshd asked for: options, without those that choose a file or the tool, and then one
// line as it stands, which no shell has seen. Without a line `form` stays as it is.
void ReadRemoteCommand(std::string_view command, Arguments& arguments);

// `word` written so that it is one word of a line.
std::string Quote(std::string_view word);

// `line` without its comment: "#" at the beginning of a word, outside of quotes, and what follows.
std::string_view WithoutComment(std::string_view line);

extern const char kHelpText[];

}  // namespace vexctl

#endif  // CTL_ARGUMENTS_H_
