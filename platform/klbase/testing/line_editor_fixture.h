// An operator at a terminal, for tests of the line editor: Type("pl<Tab>"), ExpectScreen(...).
#ifndef PLATFORM_KLBASE_TESTING_LINE_EDITOR_FIXTURE_H_
#define PLATFORM_KLBASE_TESTING_LINE_EDITOR_FIXTURE_H_

#include <gmock/gmock.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "line_editor/editor.h"
#include "line_editor/history.h"
#include "platform/klbase/testing/test_screen.h"

namespace cli::internal {

// "a<Up><C-a><M-b>" as the bytes that an xterm sends; "<lt>" is "<".
inline std::string KeyBytes(std::string_view keys) {
  static constexpr struct {
    std::string_view name;
    std::string_view bytes;
  } kNames[] = {
      {"lt", "<"},          {"Enter", "\r"},         {"Tab", "\t"},
      {"BS", "\x7f"},       {"Esc", "\x1b"},         {"Up", "\x1b[A"},
      {"Down", "\x1b[B"},   {"Right", "\x1b[C"},     {"Left", "\x1b[D"},
      {"Home", "\x1b[H"},   {"End", "\x1b[F"},       {"Del", "\x1b[3~"},
      {"Ins", "\x1b[2~"},   {"PgUp", "\x1b[5~"},     {"PgDn", "\x1b[6~"},
      {"F5", "\x1b[15~"},   {"C-Left", "\x1b[1;5D"}, {"C-Right", "\x1b[1;5C"},
      {"M-BS", "\x1b\x7f"}, {"Paste", "\x1b[200~"},  {"/Paste", "\x1b[201~"},
      {"C-_", "\x1f"},
  };
  std::string bytes;
  for (std::size_t i = 0; i < keys.size(); ++i) {
    const std::size_t end = keys[i] == '<' ? keys.find('>', i) : std::string_view::npos;
    if (end == std::string_view::npos) {
      bytes += keys[i];
      continue;
    }
    // "<M->>" is Alt with ">".
    const std::size_t close = keys.substr(i, 5) == "<M->>" ? i + 4 : end;
    const std::string_view name = keys.substr(i + 1, close - i - 1);
    i = close;
    std::string_view known;
    for (const auto& entry : kNames) {
      if (entry.name == name) known = entry.bytes;
    }
    if (!known.empty()) {
      bytes += known;
    } else if (name.size() == 3 && name.substr(0, 2) == "C-") {
      bytes += static_cast<char>(name[2] & 0x1f);
    } else if (name.size() == 3 && name.substr(0, 2) == "M-") {
      bytes += {'\x1b', name[2]};
    } else {
      ADD_FAILURE() << "unknown key <" << name << ">";
    }
  }
  return bytes;
}

class LineEditorTest : public testing::Test {
 protected:
  explicit LineEditorTest(int columns = 40, int rows = 10) : screen_(columns, rows) { MakeEditor(columns, rows); }

  void MakeEditor(int columns, int rows) {
    editor_ = std::make_unique<LineEditor>(
        &history_, [this](std::string_view text) { return Complete(text); },
        [this](std::string_view line) { return Hint(line); });
    editor_->SetDisplay(LineEditor::Display::kFull);
    editor_->Resize(columns, rows);
    editor_->Start("main> ");
    Show();
  }
  // Begins again on a terminal of another size.
  void UseTerminal(int columns, int rows = 10) {
    screen_ = TestScreen(columns, rows);
    MakeEditor(columns, rows);
  }
  void UseDisplay(LineEditor::Display display) {
    editor_->TakeOutput();
    screen_ = TestScreen(40, 10);
    MakeEditor(40, 10);
    editor_ = std::make_unique<LineEditor>(&history_, nullptr, nullptr);
    editor_->SetDisplay(display);
    editor_->Start("main> ");
  }

  void TypeBytes(std::string_view bytes) {
    while (!bytes.empty()) {
      const LineEditor::Result result = editor_->Feed(bytes);
      bytes.remove_prefix(result.consumed);
      if (result.event == LineEditor::Event::kNone) {
        ASSERT_TRUE(bytes.empty());
        break;
      }
      Take(result.event);
    }
    Show();
  }
  void Type(std::string_view keys) { TypeBytes(KeyBytes(keys)); }

  void Resize(int columns, int rows) {
    screen_.Resize(columns, rows);
    editor_->Resize(columns, rows);
    Show();
  }

  // The screen's text with ^ where the cursor is.
  void ExpectScreen(const std::string& text) { EXPECT_EQ(screen_.Text(), text); }
  void ExpectCursor(int row, int column) {
    EXPECT_EQ(screen_.Row(), row);
    EXPECT_EQ(screen_.Column(), column);
    EXPECT_FALSE(screen_.HasPendingWrap()) << "the cursor is between two rows";
  }
  // The line that Enter would give if it were pressed now.
  void ExpectLine(const std::string& line) {
    Type("<Enter>");
    ASSERT_FALSE(events_.empty());
    EXPECT_EQ(events_.back(), line);
  }

  virtual Completion Complete(std::string_view text) {
    Completion completion;
    completion.start = text.rfind(' ') + 1;  // npos + 1 is 0
    const std::string_view word = text.substr(completion.start);
    for (const std::string& known : words_) {
      if (known.compare(0, word.size(), word) == 0) completion.candidates.push_back(known);
    }
    completion.unfinished = completion.candidates.size() == 1 && completion.candidates.front().ends_with('=');
    return completion;
  }
  virtual std::string Hint(std::string_view line) { return line == "open" ? " <path> <speed>" : ""; }

  void Take(LineEditor::Event event) {
    if (event == LineEditor::Event::kLine) events_.push_back(editor_->TakeLine());
    if (event == LineEditor::Event::kInterrupt) events_.push_back("(interrupt)");
    if (event == LineEditor::Event::kEndOfInput) events_.push_back("(end of input)");
    if (event == LineEditor::Event::kTooLong) events_.push_back("(too long)");
    editor_->Start("main> ");
  }

  void Show() {
    output_ = editor_->TakeOutput();
    screen_.Write(output_);
    EXPECT_EQ(screen_.Unknown(), "");
  }

  History history_;
  std::vector<std::string> words_ = {"open", "openall", "play", "playd", "stop"};
  std::unique_ptr<LineEditor> editor_;
  TestScreen screen_;
  std::string output_;  // of the last call
  std::vector<std::string> events_;
};

}  // namespace cli::internal

#endif  // PLATFORM_KLBASE_TESTING_LINE_EDITOR_FIXTURE_H_
