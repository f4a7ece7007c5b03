#include "ctl/arguments.h"

#include <charconv>
#include <cmath>
#include <cstddef>

namespace vexctl {
namespace {

using Words = std::vector<std::string>;

constexpr double kLeastSeconds = 0.001;
constexpr double kMostSeconds = 86400;  // as the tool has it

struct Reader {
  const Words& words;
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

void ReadOption(Reader& reader, Arguments& arguments) {
  const std::string& word = reader.words[reader.next++];
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

Options stand before the first word. Exit status: 0 ok, 1 refused or failed, 2 usage, 3 tool or daemon not reached,
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
  while (reader.More() && arguments.error.empty()) {
    const std::string& word = words[reader.next];
    if (word == "--") {
      ++reader.next;
      break;
    }
    if (word.size() < 2 || word.front() != '-') break;
    ReadOption(reader, arguments);
    if (arguments.form == Arguments::Form::kHelp || arguments.form == Arguments::Form::kVersion) return arguments;
  }
  if (arguments.error.empty() && reader.More()) {
    ReadLine({words.begin() + static_cast<std::ptrdiff_t>(reader.next), words.end()}, arguments);
  }
  if (arguments.error.empty()) CheckTogether(arguments);
  return arguments;
}

}  // namespace vexctl
