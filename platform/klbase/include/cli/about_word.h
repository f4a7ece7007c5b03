// Errors that are about one word of the operator's line, so that the console can name it.
#ifndef CLI_ABOUT_WORD_H_
#define CLI_ABOUT_WORD_H_

#include <memory>
#include <string>

#include "klbase/export.h"

namespace cli {

// A second base of exceptions that concern one typed word. The console looks for it in exceptions that leave a command.
class KLBASE_EXPORT about_word {
 public:
  virtual ~about_word() = default;
  // The word as it was typed; null when it is not known. Lives as long as the exception or a copy of it.
  virtual const std::string* Word() const noexcept = 0;
};

// The exception Base, made from its message, about one word: handlers of Base see no difference.
//
//   throw cli::word_error<std::invalid_argument>(word, "stoi");  // the operator reads: "soon" is not a number (stoi)
template <typename Base>
class KLBASE_EXPORT word_error : public Base, public about_word {
 public:
  word_error(const std::string& word_in_question, const char* message)
      : Base(message), word(std::make_shared<const std::string>(word_in_question)) {}

  const std::string* Word() const noexcept override { return word.get(); }

 private:
  std::shared_ptr<const std::string> word;  // shared: copying an exception must not throw
};

}  // namespace cli

#endif  // CLI_ABOUT_WORD_H_
