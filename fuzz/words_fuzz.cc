// From a typed line to a handler's arguments: words, their conversion, completion, and dispatch in a menu.
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <utility>
#include <vector>

#include "cli/about_word.h"
#include "cli/failure_text.h"
#include "cli/menu.h"
#include "cli/menu_walk.h"
#include "fuzz/fuzz.h"
#include "line_editor/text.h"
#include "text/words.h"

namespace {

using cli::internal::Complete;
using cli::internal::MenuPath;
using cli::internal::SplitWords;
using cli::internal::Words;
using fuzz::Input;

// --- splitting, in another way than the console's: each character's effect in each state

// The JSON that begins with `rest`, by its grammar of nesting: "" when it is not closed, or a backslash stands outside
// of its strings.
std::string_view JsonAtStart(std::string_view rest) {
  std::string open;
  for (std::size_t at = 0; at < rest.size(); ++at) {
    const bool in_string = open.ends_with('"');
    switch (rest[at]) {
      case '"':
        in_string ? open.pop_back() : open.push_back('"');
        break;
      case '\\':
        if (!in_string) return {};
        ++at;
        break;
      case '{':
      case '[':
        if (!in_string) open.push_back('(');
        break;
      case '}':
      case ']':
        if (!in_string) open.pop_back();
        break;
      default:
        break;
    }
    if (open.empty()) return rest.substr(0, at + 1);
  }
  return {};
}

std::vector<std::string> SplitByTable(std::string_view line, bool& valid) {
  std::vector<std::string> words;
  bool inside = false;
  bool quoted = false;
  bool escaped = false;
  const auto word = [&]() -> std::string& {
    if (!std::exchange(inside, true)) words.emplace_back();
    return words.back();
  };
  for (std::size_t at = 0; at < line.size(); ++at) {
    const char c = line[at];
    const bool behind_equals = inside && at > 0 && line[at - 1] == '=';
    if (!escaped && !quoted && ((c == '{' && (!inside || behind_equals)) || (c == '[' && behind_equals))) {
      const std::string_view json = JsonAtStart(line.substr(at));
      const std::string_view behind = line.substr(at + json.size()).substr(0, 1);
      if (!json.empty() && (behind.empty() || behind == " " || behind == "\t")) {
        word() += json;
        at += json.size() - 1;
        continue;
      }
    }
    if (escaped) {
      word() += c;
      escaped = false;
    } else if (c == '\\') {
      word();
      escaped = true;
    } else if (c == '"') {
      word();
      quoted = !quoted;
    } else if ((c == ' ' || c == '\t') && !quoted) {
      inside = false;
    } else {
      word() += c;
    }
  }
  valid = !quoted && !escaped;
  return words;
}

void CheckSplitting(Input input) {
  const std::string line(input.Rest());
  const Words split = SplitWords(line);
  bool valid = false;
  const auto expected = SplitByTable(line, valid);
  FUZZ_CHECK_EQUAL(split.error.empty(), valid);
  FUZZ_CHECK_EQUAL(split.words, expected);
  FUZZ_CHECK(split.last_start <= line.size(), fuzz::Detail(split.last_start));
  if (split.last_open) {
    const Words last = SplitWords(std::string_view(line).substr(split.last_start));
    FUZZ_CHECK_EQUAL(last.words.size(), std::size_t{1});
    FUZZ_CHECK_EQUAL(last.words.back(), split.words.back());
  }
}

// Words, one per line of the input, are the same after they were quoted, put into one line and split.
void CheckQuoting(Input input) {
  std::vector<std::string> words;
  std::string line;
  while (!input.Empty()) {
    words.emplace_back(input.Line());
    line += (words.size() % 2 == 0 ? " " : " \t ") + cli::internal::QuoteWord(words.back());
  }
  const Words split = SplitWords(line);
  FUZZ_CHECK_EQUAL(split.error, std::string());
  FUZZ_CHECK_EQUAL(split.words, words);
}

// --- conversion, by the rules as they are documented, without streams

bool IsSpace(char c) { return std::string_view(" \t\n\v\f\r").find(c) != std::string_view::npos; }
bool IsDigit(char c) { return c >= '0' && c <= '9'; }

std::string_view Trimmed(std::string_view word) {
  while (!word.empty() && IsSpace(word.front())) word.remove_prefix(1);
  while (!word.empty() && IsSpace(word.back())) word.remove_suffix(1);
  return word;
}

std::size_t SkipDigits(std::string_view word, std::size_t at) {
  while (at < word.size() && IsDigit(word[at])) ++at;
  return at;
}
std::size_t SkipSign(std::string_view word, std::size_t at) {
  return at < word.size() && (word[at] == '+' || word[at] == '-') ? at + 1 : at;
}

std::optional<long long> Integer(std::string_view word, long long least, long long most) {
  const std::string text(Trimmed(word));
  const std::size_t digits = SkipSign(text, 0);
  if (digits == text.size() || SkipDigits(text, digits) != text.size()) return std::nullopt;
  errno = 0;
  const long long value = std::strtoll(text.c_str(), nullptr, 10);
  if (errno != 0 || value < least || value > most) return std::nullopt;
  return value;
}

// sign digits . digits e sign digits, of which the digits on one side of the point may be missing.
template <typename Float>
std::optional<Float> Decimal(std::string_view word, Float (*convert)(const char*, char**)) {
  const std::string text(Trimmed(word));
  const std::size_t start = SkipSign(text, 0);
  std::size_t at = SkipDigits(text, start);
  std::size_t digits = at - start;
  if (at < text.size() && text[at] == '.') {
    const std::size_t end = SkipDigits(text, at + 1);
    digits += end - at - 1;
    at = end;
  }
  if (digits == 0) return std::nullopt;
  if (at < text.size() && (text[at] == 'e' || text[at] == 'E')) {
    const std::size_t exponent = SkipSign(text, at + 1);
    at = SkipDigits(text, exponent);
    if (at == exponent) return std::nullopt;
  }
  if (at != text.size()) return std::nullopt;
  const Float value = convert(text.c_str(), nullptr);
  if (std::isinf(value)) return std::nullopt;
  return value;
}

template <typename T>
std::optional<T> Expected(const std::string& word);
template <>
std::optional<std::string> Expected(const std::string& word) {
  const std::string_view text = Trimmed(word);
  for (const char c : text) {
    if (IsSpace(c)) return std::nullopt;
  }
  if (text.empty()) return std::nullopt;
  return std::string(text);
}
template <>
std::optional<unsigned int> Expected(const std::string& word) {
  if (Trimmed(word).starts_with('-')) return std::nullopt;
  return Integer(word, 0, std::numeric_limits<unsigned int>::max());
}
template <>
std::optional<int> Expected(const std::string& word) {
  return Integer(word, std::numeric_limits<int>::min(), std::numeric_limits<int>::max());
}
template <>
std::optional<bool> Expected(const std::string& word) {
  const auto value = Integer(word, 0, 1);
  if (!value) return std::nullopt;
  return *value == 1;
}
template <>
std::optional<float> Expected(const std::string& word) {
  return Decimal<float>(word, &std::strtof);
}
template <>
std::optional<double> Expected(const std::string& word) {
  return Decimal<double>(word, &std::strtod);
}

bool IsShowable(std::string_view text) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if (byte < 0x20 || byte == 0x7f) return false;
    const bool c1 = byte == 0xc2 && i + 1 < text.size() && (static_cast<unsigned char>(text[i + 1]) & 0xe0) == 0x80;
    if (c1) return false;  // U+0080 to U+009F: terminals act on them
  }
  return true;
}

// The text for the operator is one line without terminal control characters.
void CheckFailureText(const std::exception_ptr& failure) {
  const std::string text = cli::internal::FailureText(failure);
  FUZZ_CHECK(!text.empty(), "");
  FUZZ_CHECK(IsShowable(text), fuzz::Detail(text));
}

template <typename T>
void CheckConversion(const std::string& word) {
  std::optional<T> value;
  try {
    value = cli::from_string<T>(word);
  } catch (const cli::bad_conversion& error) {
    FUZZ_CHECK(error.Word() != nullptr && *error.Word() == word, fuzz::Detail(word));
    CheckFailureText(std::current_exception());
  }
  const std::optional<T> expected = Expected<T>(word);
  FUZZ_CHECK(value.has_value() == expected.has_value(), cli::TypeName<T>::kValue + (" of " + fuzz::Detail(word)));
  FUZZ_CHECK(value == expected, cli::TypeName<T>::kValue + (" of " + fuzz::Detail(word)));
}

void CheckConversions(Input input) {
  const std::string word(input.Rest());
  CheckConversion<std::string>(word);
  CheckConversion<unsigned int>(word);
  CheckConversion<int>(word);
  CheckConversion<bool>(word);
  CheckConversion<float>(word);
  CheckConversion<double>(word);
}

// --- a menu of every kind of command, as an operator uses it

std::vector<std::string> calls;  // of handlers, since the last line

std::string Written(const std::string& value) { return value; }
template <typename T>
std::string Written(const T& value) {
  std::ostringstream text;
  text.precision(17);
  text << value;
  return text.str();
}

template <typename... Params>
std::unique_ptr<cli::Command> Recording(const std::string& name, std::vector<std::string> parameters = {}) {
  const auto handler = [name](std::ostream&, const Params&... values) {
    calls.push_back((name + ... + ("," + Written(values))));
  };
  using Handler = decltype(handler);
  return std::make_unique<cli::VariadicFunctionCommand<Handler, Params...>>(name, handler, "help", parameters);
}

std::shared_ptr<cli::Menu> MakeMenu() {
  auto root = std::make_shared<cli::Menu>("main");
  auto player = std::make_unique<cli::Menu>("playd");
  auto layers = std::make_unique<cli::Menu>("lay ers");  // no name like that exists, but nothing forbids it
  layers->Insert(Recording<>("list"));
  layers->Insert(Recording<double, float>("scale"));
  player->Insert(Recording<std::string>("CreateUplayer", {"id"}));
  player->Insert(Recording<std::string, std::string>("SetSeekOfUplayer", {"id", "seek_ms"}));
  player->Insert(Recording<unsigned int, int, bool>("numbers"));
  player->Insert(Recording<std::string>("twice", {"text"}));
  player->Insert(Recording<unsigned int, unsigned int>("twice", {"a", "b"}));
  player->Insert(std::move(layers));
  auto disabled = Recording<>("disabled");
  disabled->Disable();
  root->Insert(Recording<unsigned int>("set_debug_level", {"level"}));
  root->Insert(Recording<>("say \"hello\""));
  root->Insert(Recording<>("back\\slash"));
  root->Insert(Recording<>("größe"));
  root->Insert(std::move(disabled));
  root->Insert(cli::MakeCommand(
      "throw",
      [](std::ostream&, const std::string& text) { throw cli::word_error<std::runtime_error>(text, text.c_str()); },
      "help", {"text"}));
  root->Insert(std::move(player));
  return root;
}

class Session : public cli::Session {
 public:
  explicit Session(MenuPath menu_path) : menu_path_(std::move(menu_path)) {}
  std::ostream& OutStream() override { return out_; }
  cli::Menu& CurrentMenu() override { return menu_path_.Current(); }
  void Enter(cli::Menu& menu) override { entered = &menu; }

  const cli::Menu* entered = nullptr;

 private:
  const MenuPath menu_path_;
  std::ostringstream out_;
};

// The menu path that the input chooses: the root or one of the submenus.
MenuPath ChooseMenuPath(Input& input, const std::shared_ptr<cli::Menu>& root) {
  MenuPath menu_path{{root}};
  for (int depth = input.Number(0, 2); depth > 0; --depth) {
    for (const auto& command : menu_path.Current().Commands()) {
      if (auto submenu = std::dynamic_pointer_cast<cli::Menu>(command)) {
        menu_path.menus.push_back(std::move(submenu));
        break;
      }
    }
  }
  return menu_path;
}

void CheckCompletion(const MenuPath& menu_path, std::string_view line) {
  static const cli::internal::CommandVector builtins = {Recording<>("help"), Recording<>("exit")};
  const cli::internal::Completion completion = Complete(menu_path, builtins, line);
  FUZZ_CHECK(completion.start <= line.size(), fuzz::Detail(completion.start));
  const std::string before(line.substr(0, completion.start));
  for (const std::string& candidate : completion.candidates) {
    const Words typed = SplitWords(before + candidate);
    FUZZ_CHECK(typed.error.empty(), fuzz::Detail(before + candidate));
    const auto again = Complete(menu_path, builtins, before + candidate).candidates;
    FUZZ_CHECK(std::find(again.begin(), again.end(), candidate) != again.end(), fuzz::Detail(before + candidate));
  }
  const std::string hint = cli::internal::Hint(menu_path, builtins, line);
  FUZZ_CHECK(IsShowable(hint), fuzz::Detail(hint));
  const Words split = SplitWords(line);
  if (split.words.empty()) return;
  const std::string refusal = cli::internal::ExplainRefusal(menu_path, builtins, split.words);
  FUZZ_CHECK(refusal.find('\n') == refusal.size() - 1, fuzz::Detail(refusal));
  FUZZ_CHECK(IsShowable(refusal.substr(0, refusal.size() - 1)), fuzz::Detail(refusal));
  const std::string path = cli::internal::CommandPath(menu_path, builtins, split.words);
  FUZZ_CHECK(IsShowable(path), fuzz::Detail(path));
  const std::string usage = cli::internal::UsageOf(menu_path, builtins, split.words);
  FUZZ_CHECK(IsShowable(usage), fuzz::Detail(usage));
}

// The lines of the input, one after the other, in one menu: each runs one handler or none, and one that fails none.
void CheckDispatch(Input input) {
  static const std::shared_ptr<cli::Menu> root = MakeMenu();
  const MenuPath menu_path = ChooseMenuPath(input, root);
  while (!input.Empty()) {
    const std::string_view line = input.Line();
    CheckCompletion(menu_path, line);
    const Words split = SplitWords(line);
    if (!split.error.empty() || split.words.empty()) continue;
    calls.clear();
    Session session(menu_path);
    bool taken = false;
    bool thrown = false;
    try {
      taken = menu_path.Current().Dispatch(split.words, session);
    } catch (...) {
      thrown = true;
      CheckFailureText(std::current_exception());
    }
    FUZZ_CHECK_EQUAL(calls.size() + (session.entered != nullptr ? 1 : 0), std::size_t{taken ? 1u : 0u});
    FUZZ_CHECK(!(taken && thrown), fuzz::Detail(line));
    FUZZ_CHECK(calls.empty() || calls.front() != "disabled", fuzz::Detail(line));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static constexpr void (*kChecks[])(Input) = {&CheckSplitting, &CheckQuoting, &CheckConversions, &CheckDispatch};
  Input input(data, size);
  const auto check = kChecks[input.Byte() % std::size(kChecks)];
  check(input);
  return 0;
}
