#include "cli/failure_text.h"

#include <stdexcept>
#include <string_view>
#include <typeinfo>

#include "cli/about_word.h"
#include "cli/command.h"
#include "line_editor/text.h"

namespace cli::internal {
namespace {

// The standard conversions name only themselves: "stoi", "stoul".
bool IsStandardConversion(std::string_view what) { return what.starts_with("sto") && what.size() <= 5; }

std::string Quoted(const std::string& word) { return '"' + word + '"'; }

std::string ConversionText(const bad_conversion& error) {
  if (error.Word() == nullptr) return error.what();
  std::string wanted = "what is expected there";
  if (*error.Type() != '\0') wanted = "<" + std::string(error.Type()) + ">";
  if (error.Parameter() != nullptr) wanted = "<" + *error.Parameter() + ">";
  return "cannot take " + Quoted(*error.Word()) + " as " + wanted + " (" + error.what() + ")";
}

// The exception's own message, and the word that it is about unless the message names it.
std::string Text(const std::exception& error) {
  if (const auto* conversion = dynamic_cast<const bad_conversion*>(&error)) return ConversionText(*conversion);
  const auto* about = dynamic_cast<const about_word*>(&error);
  const std::string* word = about != nullptr ? about->Word() : nullptr;
  const std::string what = error.what();
  if (IsStandardConversion(what) && dynamic_cast<const std::invalid_argument*>(&error) != nullptr) {
    const std::string subject =
        word != nullptr ? Quoted(*word) + " is not a number" : "a word is not a number where one is expected";
    return subject + " (" + what + ")";
  }
  if (IsStandardConversion(what) && dynamic_cast<const std::out_of_range*>(&error) != nullptr) {
    const std::string subject = word != nullptr ? Quoted(*word) : "a number";
    return subject + " is too large or too small" + (word != nullptr ? " for this parameter (" : " (") + what + ")";
  }
  return word == nullptr || what.find(*word) != std::string::npos ? what : Quoted(*word) + ": " + what;
}

}  // namespace

// A message may come from a daemon's reply: it must not break the line or drive the terminal. The bytes that are
// written out are those that are not UTF-8, and the second set of control characters.
std::string OneLine(std::string_view text) {
  std::string line;
  for (std::size_t offset = 0; offset < text.size();) {
    const Unit unit = UnitAt(text, offset);
    const auto first = static_cast<unsigned char>(text[offset]);
    if (first < 0x20 || first == 0x7f) {
      line += ' ';
    } else {
      AppendDisplay(line, text, offset, unit);
    }
    offset += unit.length;
  }
  return line;
}

std::string FailureText(const std::exception_ptr& failure) {
  try {
    std::rethrow_exception(failure);
  } catch (const std::exception& e) {
    return OneLine(Text(e));
  } catch (...) {
    return "it failed with an exception that has no message";
  }
}

bool IsAboutAWord(const std::exception_ptr& failure) {
  try {
    std::rethrow_exception(failure);
  } catch (const about_word&) {
    return true;
  } catch (const std::bad_cast&) {
    return true;
  } catch (...) {
    return false;
  }
}

}  // namespace cli::internal
