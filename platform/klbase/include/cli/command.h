// Commands: the entries of a menu, and the way from an operator's words to a handler's typed arguments.
//
// A handler command is made from its name, a callable, its help text, its parameter descriptions and the words of an
// example:
//
//   menu->Insert(cli::MakeCommand(
//       "SetQulity", [](std::ostream& out, const std::string& quality) { ... }, "send a proto message", {"qulity"},
//       "high"));
#ifndef CLI_COMMAND_H_
#define CLI_COMMAND_H_

#include <atomic>
#include <cstddef>
#include <functional>
#include <iterator>
#include <memory>
#include <optional>
#include <ostream>
#include <sstream>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <utility>
#include <vector>

#include "cli/about_word.h"
#include "cli/session.h"
#include "klbase/export.h"

namespace cli {

// Thrown when a word cannot be converted to a parameter's type. It knows the word and the type's name when from_string
// threw it, the word's place once it has left the conversion chain, and the parameter once it has left a handler
// command, so that the operator can be told which word it was.
class KLBASE_EXPORT bad_conversion : public std::bad_cast, public about_word {
 public:
  bad_conversion() = default;
  bad_conversion(const std::string& word_to_convert, const char* type_name)
      : word(std::make_shared<const std::string>(word_to_convert)), type(type_name) {}
  // The same error, of the word behind which so many others follow.
  bad_conversion(const bad_conversion& error, std::size_t words_behind) : bad_conversion(error) {
    behind = words_behind;
  }
  // The same error, of the parameter that help shows as `parameter_name`.
  bad_conversion(const bad_conversion& error, const std::string& parameter_name)
      : word(error.word), type(error.type), parameter(std::make_shared<const std::string>(parameter_name)) {}

  const char* what() const noexcept override {
    return "bad from_string conversion: source string value could not be interpreted as target";
  }
  const std::string* Word() const noexcept override { return word.get(); }
  // The name of the type that was asked for, as help shows it; "" when it is not known. A static text.
  const char* Type() const noexcept { return type; }
  // How many of the chain's words follow the one that did not convert; none outside of a chain.
  std::optional<std::size_t> WordsBehind() const noexcept { return behind; }
  // How help shows the parameter; null when it is not known. Lives as long as the exception or a copy of it.
  const std::string* Parameter() const noexcept { return parameter.get(); }

 private:
  std::shared_ptr<const std::string> word;
  const char* type = "";
  std::optional<std::size_t> behind;
  std::shared_ptr<const std::string> parameter;
};

// Base of everything that can stand in a menu. Owned by its menu. Enable() and Disable() may be called from any thread,
// the rest from the threads that run sessions; a command that keeps state of its own must guard it.
class KLBASE_EXPORT Command {
 public:
  explicit Command(std::string name_of_command) : name(std::move(name_of_command)) {}
  Command(const Command&) = delete;
  Command& operator=(const Command&) = delete;
  virtual ~Command() = default;

  // A disabled command neither runs, nor is listed in help, nor completes.
  virtual void Enable() { enabled = true; }
  virtual void Disable() { enabled = false; }

  // Runs the command if `words` (its name and its parameters) are its own; returns false, having done nothing, when
  // they are not. Throws bad_conversion, having done nothing, when the words fit but one of them doesn't convert; lets
  // any exception of the command itself through.
  virtual bool Exec(const std::vector<std::string>& words, Session& session) = 0;

  // Writes the command's entry in the help listing.
  virtual void Help(std::ostream& out) const = 0;

  // The names that `line` may become: this command's if it is enabled and begins with `line`.
  virtual std::vector<std::string> GetCompletionRecursive(const std::string& line) const {
    if (enabled && name.starts_with(line)) return {name};
    return {};
  }

  const std::string& Name() const { return name; }
  bool IsEnabled() const { return enabled; }

  // How each parameter is shown, without its brackets, in order; empty when the command takes none.
  virtual std::vector<std::string> ParameterNames() const { return {}; }

  // A line that runs the command, as an operator types it in the command's menu; empty when there is none. It is shown
  // by help of this command alone, not in listings.
  virtual std::string Example() const { return ""; }

 protected:
  const std::string name;
  std::atomic<bool> enabled{true};
};

namespace internal {

template <typename T>
constexpr const char* NameOfType() {
  if constexpr (std::is_same_v<T, std::string>) return "string";
  if constexpr (std::is_same_v<T, bool>) return "bool";
  if constexpr (std::is_same_v<T, char>) return "char";
  if constexpr (std::is_same_v<T, signed char>) return "signed char";
  if constexpr (std::is_same_v<T, unsigned char>) return "unsigned char";
  if constexpr (std::is_same_v<T, short>) return "short";
  if constexpr (std::is_same_v<T, unsigned short>) return "unsigned short";
  if constexpr (std::is_same_v<T, int>) return "int";
  if constexpr (std::is_same_v<T, unsigned int>) return "unsigned int";
  if constexpr (std::is_same_v<T, long>) return "long";
  if constexpr (std::is_same_v<T, unsigned long>) return "unsigned long";
  if constexpr (std::is_same_v<T, long long>) return "long long";
  if constexpr (std::is_same_v<T, unsigned long long>) return "unsigned long long";
  if constexpr (std::is_same_v<T, float>) return "float";
  if constexpr (std::is_same_v<T, double>) return "double";
  if constexpr (std::is_same_v<T, long double>) return "long double";
  return "value";
}

}  // namespace internal

// The name under which help shows a parameter that has no description. A menu may give its own types one by a
// specialisation; else they have "value".
template <typename T>
struct TypeName {
  static constexpr const char* kValue = internal::NameOfType<T>();
};

// Converts a word: standard formatted extraction that must use up the whole word (blanks around it are allowed). An
// unsigned integer has no minus: the extraction would take "-1" for the largest value. Throws bad_conversion.
template <typename T>
T from_string(const std::string& word) {
  constexpr bool kUnsignedNumber = std::is_unsigned_v<T> && (sizeof(T) > 1);
  const bad_conversion refusal(word, TypeName<T>::kValue);
  std::istringstream stream(word);
  if (!stream) throw refusal;
  if (kUnsignedNumber && (stream >> std::ws).peek() == '-') throw refusal;
  T value{};
  if (!(stream >> value)) throw refusal;
  if (!(stream >> std::ws).eof()) throw refusal;
  return value;
}

// The conversion chain: each link converts one word, keeps the value and hands the rest of the words to the next link;
// the last one calls `handler` with all values, which are the handler's to keep.
template <typename... Params>
struct Select;

template <>
struct Select<> {
  template <typename Handler, typename Iterator>
  static void Exec(Handler&& handler, Iterator, Iterator) {
    handler();
  }
};

template <typename First, typename... Rest>
struct Select<First, Rest...> {
  template <typename Handler, typename Iterator>
  static void Exec(Handler&& handler, Iterator word, Iterator end) {
    if (word == end) throw bad_conversion();
    First value = Convert(*word);
    const auto with_value = [&handler, &value](Rest&&... rest) { handler(std::move(value), std::move(rest)...); };
    Select<Rest...>::Exec(with_value, std::next(word), end);
  }

 private:
  static First Convert(const std::string& word) {
    try {
      return from_string<First>(word);
    } catch (const bad_conversion& error) {
      throw bad_conversion(error, sizeof...(Rest));
    }
  }
};

// A command that converts its words to Params and calls `handler(std::ostream&, Params&&...)` on the thread that runs
// the session: a handler may take each value, a constant reference to it, or the value to keep. A handler with state of
// its own must guard it. `parameter_descriptions` holds one text per parameter, or none; `example_words` are the words
// behind the name in an example, or empty. A command without parameters is its own example.
template <typename Handler, typename... Params>
class VariadicFunctionCommand : public Command {
 public:
  VariadicFunctionCommand(std::string name_of_command, Handler function, std::string help_text,
                          std::vector<std::string> descriptions = {}, std::string words_of_example = "")
      : Command(std::move(name_of_command)),
        handler(std::move(function)),
        description(std::move(help_text)),
        parameter_descriptions(std::move(descriptions)),
        example_words(std::move(words_of_example)) {}

  bool Exec(const std::vector<std::string>& words, Session& session) override {
    if (!IsEnabled()) return false;
    if (words.size() != sizeof...(Params) + 1) return false;
    if (words.front() != Name()) return false;
    bool converted = false;
    const auto call = [this, &session, &converted](Params&&... values) {
      converted = true;
      handler(session.OutStream(), std::move(values)...);
    };
    try {
      Select<Params...>::Exec(call, std::next(words.begin()), words.end());
    } catch (const bad_conversion& error) {
      if (!converted) ThrowWithParameter(error);
      throw;
    }
    return true;
  }

  void Help(std::ostream& out) const override {
    if (!IsEnabled()) return;
    out << " - " << Name();
    for (const auto& parameter : ParameterNames()) out << " <" << parameter << ">";
    out << "\n\t" << description << "\n";
  }

  std::vector<std::string> ParameterNames() const override {
    if (!parameter_descriptions.empty()) return parameter_descriptions;
    return {TypeName<Params>::kValue...};
  }

  std::string Example() const override {
    if constexpr (sizeof...(Params) == 0) return Name();
    return example_words.empty() ? "" : Name() + " " + example_words;
  }

 private:
  void ThrowWithParameter(const bad_conversion& error) const {
    const std::vector<std::string> names = ParameterNames();
    const std::size_t at = sizeof...(Params) - 1 - error.WordsBehind().value_or(0);
    if (at < names.size()) throw bad_conversion(error, names[at]);
  }

  Handler handler;
  const std::string description;
  const std::vector<std::string> parameter_descriptions;
  const std::string example_words;
};

namespace internal {

// For decltype: the command of a handler with this signature.
template <typename Handler, typename... Args>
VariadicFunctionCommand<Handler, std::decay_t<Args>...> CommandOf(std::function<void(std::ostream&, Args...)>);

}  // namespace internal

// Makes a handler command whose parameter types are those of `handler`: a function pointer, a std::function or a lambda
// (not generic) that takes std::ostream& and the parameters and returns nothing.
template <typename Handler>
std::unique_ptr<Command> MakeCommand(std::string name, Handler handler, std::string help_text,
                                     std::vector<std::string> parameter_descriptions = {},
                                     std::string example_words = "") {
  using Type = decltype(internal::CommandOf<Handler>(std::function{handler}));
  return std::make_unique<Type>(std::move(name), std::move(handler), std::move(help_text),
                                std::move(parameter_descriptions), std::move(example_words));
}

}  // namespace cli

#endif  // CLI_COMMAND_H_
