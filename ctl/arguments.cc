#include "ctl/arguments.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <iterator>

namespace vexctl {
namespace {

using Words = std::vector<std::string>;

constexpr double kLeastSeconds = 0.001;
constexpr double kMostSeconds = 86400;  // as the tool has it

// Another machine may choose neither files nor the tool.
constexpr std::string_view kForRemote[] = {"--json", "--field", "--within", "-k", "-q", "-h", "--help", "--version"};
constexpr std::string_view kBlanks = " \t";

struct Reader {
  const Words& words;
  bool is_remote = false;
  std::size_t next = 0;

  bool More() const { return next < words.size(); }
  // The value of the option `name`, which stands behind it or behind its "=".
  std::optional<std::string> Value(const std::string& name, std::string_view word, Arguments& arguments) {
    if (word.size() > name.size()) return std::string(word.substr(name.size() + 1));
    if (More()) return words[next++];
    arguments.error = name + " needs a value";
    return std::nullopt;
  }
};

// "--within", "--within=5", but not "--without".
bool Is(std::string_view word, std::string_view name) {
  return word == name || (name.size() > 2 && word.substr(0, name.size()) == name && word[name.size()] == '=');
}

std::optional<std::chrono::milliseconds> Seconds(const std::string& text) {
  double seconds = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
  const bool read = error == std::errc() && end == text.data() + text.size();
  if (!read || !(seconds >= kLeastSeconds && seconds <= kMostSeconds)) return {};  // not "nan" either
  return std::chrono::milliseconds(std::llround(seconds * 1000));
}

void ReadWithValue(const std::string& name, const std::string& value, Arguments& arguments) {
  if (name == "-c" || name == "-f") {
    arguments.form = Arguments::Form::kLines;
    arguments.sources.push_back({name == "-f", value});
  } else if (name == "--socket") {
    arguments.socket = value;
    if (value.empty()) arguments.error = "--socket needs a path";
  } else if (name == "--field") {
    arguments.field = value;
    if (value.empty()) arguments.error = "--field needs a name";
  } else {
    arguments.within = Seconds(value);
    if (!arguments.within) arguments.error = "--within needs seconds, up to 86400, not \"" + value + "\"";
  }
}

bool IsForRemote(std::string_view word) {
  return std::any_of(std::begin(kForRemote), std::end(kForRemote), [word](auto name) { return Is(word, name); });
}

void ReadOption(Reader& reader, Arguments& arguments) {
  const std::string& word = reader.words[reader.next++];
  if (reader.is_remote && !IsForRemote(word)) {
    arguments.error = "\"" + word + "\" can't come over ssh; --json, --field, --within, -k and -q can";
    return;
  }
  for (const char* name : {"-c", "-f", "--socket", "--field", "--within"}) {
    if (!Is(word, name)) continue;
    if (const auto value = reader.Value(name, word, arguments)) ReadWithValue(name, *value, arguments);
    return;
  }
  if (word == "-k") {
    arguments.keep_going = true;
  } else if (word == "-q") {
    arguments.quiet = true;
  } else if (word == "--json") {
    arguments.json = true;
  } else if (word == "-h" || word == "--help") {
    arguments.form = Arguments::Form::kHelp;
  } else if (word == "--version") {
    arguments.form = Arguments::Form::kVersion;
  } else {
    arguments.error = "unknown option \"" + word + "\"; options stand before the line's first word";
  }
}

bool AsksForHelp(const Arguments& arguments) {
  return arguments.form == Arguments::Form::kHelp || arguments.form == Arguments::Form::kVersion;
}

// Reads the options at the beginning; `reader.next` is at the line's first word then.
void ReadOptions(Reader& reader, Arguments& arguments) {
  while (reader.More() && arguments.error.empty() && !AsksForHelp(arguments)) {
    const std::string& word = reader.words[reader.next];
    if (word == "--") {
      ++reader.next;
      return;
    }
    if (word.size() < 2 || word.front() != '-') return;
    ReadOption(reader, arguments);
  }
}

void ReadLine(const Words& words, Arguments& arguments) {
  if (!arguments.sources.empty()) {
    arguments.error = "\"" + words.front() + "\" stands behind -c or -f, which bring the lines themselves";
  } else if (words.front() == "monitor") {
    arguments.form = Arguments::Form::kMonitor;
    arguments.words.assign(words.begin() + 1, words.end());
  } else if (words.front() == "complete") {
    arguments.form = Arguments::Form::kComplete;
    arguments.words.assign(words.begin() + 1, words.end());
    if (arguments.words.size() != 1) arguments.error = "complete takes one word: the beginning of a line";
  } else {
    arguments.form = Arguments::Form::kLines;
    std::string line;
    for (const std::string& word : words) line += (line.empty() ? "" : " ") + Quote(word);
    arguments.sources.push_back({false, line});
  }
}

std::vector<std::string_view> SplitAtBlanks(std::string_view text) {
  std::vector<std::string_view> pieces;
  for (std::size_t end = 0;;) {
    const std::size_t start = text.find_first_not_of(kBlanks, end);
    if (start == std::string_view::npos) return pieces;
    end = std::min(text.find_first_of(kBlanks, start), text.size());
    pieces.push_back(text.substr(start, end - start));
  }
}

// The words of a line, as the console has them. An open quote ends with the line.
Words SplitWords(std::string_view line) {
  Words words;
  bool quoted = false;
  bool inside = false;
  for (std::size_t at = 0; at < line.size(); ++at) {
    const bool is_blank = !quoted && kBlanks.find(line[at]) != std::string_view::npos;
    if (!is_blank && !inside) words.emplace_back();
    inside = !is_blank;
    if (is_blank) continue;
    if (line[at] == '"') {
      quoted = !quoted;
      continue;
    }
    if (line[at] == '\\' && at + 1 < line.size()) ++at;
    words.back() += line[at];
  }
  return words;
}

// `line` begins with the word `first`.
void ReadRemoteLine(std::string_view first, std::string_view line, Arguments& arguments) {
  const std::string_view rest = line.substr(std::min(line.find_first_not_of(kBlanks, first.size()), line.size()));
  if (first == "monitor") {
    arguments.form = Arguments::Form::kMonitor;
    arguments.words = SplitWords(rest);
  } else if (first == "complete") {
    arguments.form = Arguments::Form::kComplete;
    arguments.words = {std::string(rest)};
  } else {
    arguments.form = Arguments::Form::kLines;
    arguments.sources.push_back({false, std::string(line)});
  }
}

void CheckTogether(Arguments& arguments) {
  using Form = Arguments::Form;
  if (!arguments.field.empty() && arguments.json) arguments.error = "--field and --json exclude each other";
  if (!arguments.field.empty() && arguments.form != Form::kLines && arguments.form != Form::kNoWords) {
    arguments.error = "--field goes with lines that are run";
  }
}

}  // namespace

const char kHelpText[] =
    R"(usage: vexctl [OPTION...] [WORD...]         runs one line of the console; without words, at a terminal: a session
       vexctl [OPTION...] -c LINE...       runs lines in one session, up to the first that fails
       vexctl [OPTION...] -f FILE          the same with the lines of a file, or of standard input: -
       vexctl [OPTION...] monitor [TOPIC...] [FIELD OP VALUE...]
       vexctl [OPTION...] complete LINE    what may follow, one word a line

  -k                 go on behind a line that failed
  -q                 print nothing: the exit status says how it ended
  --json             print each reply, event and error as a line of JSON
  --field NAME       print this field of the last line's reply alone; also status, code, reason
  --within SECONDS   give up each line after so long
  --socket PATH      the tool's control socket
  --help, --version

Options stand before the first word. As the ForceCommand of sshd it runs what the client asks for (SSH_ORIGINAL_COMMAND):
one line as it stands, options before it but no -c, -f or --socket. Exit status: 0 ok, 1 refused or failed, 2 usage, 3 tool or daemon not reached,
4 time limit, 130 cancelled. In a session Ctrl-] leaves.
)";

std::string Quote(std::string_view word) {
  if (!word.empty() && word.find_first_of(" \t\"\\") == std::string_view::npos) return std::string(word);
  std::string quoted = "\"";
  for (const char c : word) {
    if (c == '"' || c == '\\') quoted += '\\';
    quoted += c;
  }
  return quoted + '"';
}

std::string_view WithoutComment(std::string_view line) {
  bool quoted = false;
  bool word_begins = true;
  for (std::size_t at = 0; at < line.size(); ++at) {
    const char c = line[at];
    if (c == '#' && word_begins && !quoted) return line.substr(0, at);
    if (c == '"') quoted = !quoted;
    if (c == '\\') ++at;
    word_begins = c == ' ' || c == '\t';
  }
  return line;
}

Arguments ReadArguments(const Words& words) {
  Arguments arguments;
  Reader reader{words};
  ReadOptions(reader, arguments);
  if (AsksForHelp(arguments)) return arguments;
  if (arguments.error.empty() && reader.More()) {
    ReadLine({words.begin() + static_cast<std::ptrdiff_t>(reader.next), words.end()}, arguments);
  }
  if (arguments.error.empty()) CheckTogether(arguments);
  return arguments;
}

void ReadRemoteCommand(std::string_view command, Arguments& arguments) {
  arguments.is_remote = true;
  if (command.find_first_of("\r\n") != std::string_view::npos) {
    arguments.error = "a command over ssh is one line; several are read from standard input when there is no command";
    return;
  }
  const std::vector<std::string_view> pieces = SplitAtBlanks(command);
  const Words words(pieces.begin(), pieces.end());
  Reader reader{words, true};
  ReadOptions(reader, arguments);
  if (AsksForHelp(arguments)) return;
  if (arguments.error.empty() && reader.More()) {
    const std::string_view first = pieces[reader.next];
    ReadRemoteLine(first, command.substr(static_cast<std::size_t>(first.data() - command.data())), arguments);
  }
  if (arguments.error.empty()) CheckTogether(arguments);
}

}  // namespace vexctl
