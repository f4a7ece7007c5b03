// An operator's end of a line editor, for fuzz targets: a terminal, and the console's reactions to the editor's events.
#ifndef FUZZ_OPERATOR_H_
#define FUZZ_OPERATOR_H_

#include <string>
#include <string_view>
#include <vector>

#include "fuzz/fuzz.h"
#include "line_editor/editor.h"
#include "line_editor/history.h"
#include "line_editor/limits.h"
#include "platform/klbase/testing/test_screen.h"

namespace fuzz {

inline constexpr std::string_view kPrompt = "main> ";

inline cli::internal::Completion CompleteWord(std::string_view text) {
  cli::internal::Completion completion;
  completion.start = text.rfind(' ') + 1;  // npos + 1 is 0
  const std::string_view word = text.substr(completion.start);
  for (const std::string_view known : {"open", "openall", "play", "playd", "stop", "größe", "größer", "日本"}) {
    if (known.starts_with(word)) completion.candidates.emplace_back(known);
  }
  return completion;
}

inline std::string HintOf(std::string_view line) {
  if (line == "open") return " <path> <speed>";
  if (line == "stop") return " <größe der 日本 Ebene, die angehalten werden soll>";
  return "";
}

// Runs lines as the console does: adds them to the history and begins the next one.
class Operator {
 public:
  Operator(int columns, int rows, cli::internal::LineEditor::Display display)
      : terminal_(columns, rows), editor_(&history_, &CompleteWord, &HintOf) {
    for (const char* line : {"open first.mp4", "stop", "日本語 a line that is longer than most windows are wide"}) {
      history_.Add(line);
    }
    editor_.SetDisplay(display);
    editor_.Resize(columns, rows);
    editor_.Start(std::string(kPrompt));
    Show();
  }

  // Returns how many events there were.
  std::size_t Type(std::string_view bytes) {
    using Event = cli::internal::LineEditor::Event;
    const std::size_t before = events_.size();
    while (!bytes.empty()) {
      const auto result = editor_.Feed(bytes);
      FUZZ_CHECK(result.consumed <= bytes.size(), "");
      FUZZ_CHECK(result.consumed > 0 || result.event != Event::kNone, "no input was used");
      bytes.remove_prefix(result.consumed);
      if (result.event == Event::kNone) {
        FUZZ_CHECK(bytes.empty(), "input is left although nothing happened");
        break;
      }
      Take(result.event);
    }
    Show();
    return events_.size() - before;
  }

  void Show() {
    const std::string output = editor_.TakeOutput();
    terminal_.Write(output);
    FUZZ_CHECK_EQUAL(terminal_.Unknown(), std::string());
  }

  cli::internal::LineEditor& Editor() { return editor_; }
  cli::internal::TestScreen& Terminal() { return terminal_; }
  const cli::internal::TestScreen& Terminal() const { return terminal_; }
  const std::vector<std::string>& Events() const { return events_; }

 private:
  void Take(cli::internal::LineEditor::Event event) {
    using Event = cli::internal::LineEditor::Event;
    if (event == Event::kLine) {
      const std::string line = editor_.TakeLine();
      CheckLine(line);
      history_.Add(line);
      events_.push_back(line);
    }
    if (event == Event::kInterrupt) events_.push_back("(interrupt)");
    if (event == Event::kEndOfInput) events_.push_back("(end of input)");
    if (event == Event::kTooLong) events_.push_back("(too long)");
    editor_.Start(std::string(kPrompt));
  }

  static void CheckLine(std::string_view line) {
    FUZZ_CHECK(line.size() <= cli::internal::kMaxLineBytes, Detail(line.size()));
    for (const char c : line) {
      FUZZ_CHECK(c == '\t' || (static_cast<unsigned char>(c) >= 0x20 && c != 0x7f), Detail(line));
    }
  }

  cli::internal::History history_;
  cli::internal::TestScreen terminal_;
  cli::internal::LineEditor editor_;
  std::vector<std::string> events_;
};

}  // namespace fuzz

#endif  // FUZZ_OPERATOR_H_
