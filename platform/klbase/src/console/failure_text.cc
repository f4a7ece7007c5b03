#include "console/failure_text.h"

#include <algorithm>
#include <stdexcept>
#include <string_view>
#include <typeinfo>

#include "cli/command.h"

namespace cli::internal {
namespace {

// A message may come from a daemon's reply: it must not break the line or drive the terminal.
std::string OneLine(std::string text) {
  std::replace_if(
      text.begin(), text.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; }, ' ');
  return text;
}

// The standard conversions name only themselves: "stoi", "stoul".
bool IsStandardConversion(std::string_view what) { return what.starts_with("sto") && what.size() <= 5; }

}  // namespace

std::string FailureText(const std::exception_ptr& failure) {
  try {
    std::rethrow_exception(failure);
  } catch (const bad_conversion& e) {
    if (e.Word() == nullptr) return e.what();
    const std::string type = *e.Type() == '\0' ? "what is expected there" : "<" + std::string(e.Type()) + ">";
    return OneLine("cannot take \"" + *e.Word() + "\" as " + type + " (" + e.what() + ")");
  } catch (const std::invalid_argument& e) {
    if (IsStandardConversion(e.what()))
      return "a word is not a number where one is expected (" + OneLine(e.what()) + ")";
    return OneLine(e.what());
  } catch (const std::out_of_range& e) {
    if (IsStandardConversion(e.what())) return "a number is too large or too small (" + OneLine(e.what()) + ")";
    return OneLine(e.what());
  } catch (const std::exception& e) {
    return OneLine(e.what());
  } catch (...) {
    return "it failed with an exception that has no message";
  }
}

}  // namespace cli::internal
