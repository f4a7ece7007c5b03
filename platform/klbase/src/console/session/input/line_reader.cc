#include "console/session/input/line_reader.h"

#include <utility>

namespace cli::internal {

LineReader::LineReader(OutputBuffer* output, std::unique_ptr<LineEditor> editor)
    : output_(output), editor_(std::move(editor)) {}

void LineReader::BeginLine(std::string prompt) {
  editor_->Start(std::move(prompt));
  PassOutput();
}

void LineReader::Give(std::string bytes) {
  if (bytes.empty()) return;
  bytes_.erase(0, std::exchange(used_, 0));
  bytes_.empty() ? bytes_.swap(bytes) : void(bytes_.append(bytes));
}

LineReader::Line LineReader::Read() {
  const std::string_view unread = std::string_view(bytes_).substr(used_);
  const LineEditor::Result result = edits_ ? Edit(unread) : splitter_.Feed(unread);
  used_ += result.consumed;
  Line line;
  line.event = result.event;
  if (line.event == LineEditor::Event::kNone) {
    if (result.consumed == 0) DropUnread();  // a reader that wants none of it must not be asked for ever
    return line;
  }
  output_->MarkLineStart();  // the Enter key moved the operator's cursor, or nothing was echoed
  const bool too_long = line.event == LineEditor::Event::kTooLong;
  if (line.event == LineEditor::Event::kLine) line.text = edits_ ? editor_->TakeLine() : splitter_.TakeLine();
  if (too_long || line.text.find_first_not_of(" \t") != std::string::npos) line.first = std::exchange(first_, false);
  return line;
}

LineEditor::Result LineReader::Edit(std::string_view bytes) {
  // The password's line may have ended in CR LF, of which the splitter took the CR.
  const std::size_t skipped = splitter_.SkipRestOfLineEnd(bytes);
  LineEditor::Result result = editor_->Feed(bytes.substr(skipped));
  result.consumed += skipped;
  PassOutput();
  return result;
}

void LineReader::Apply(const TerminalState& terminal) {
  display_ = terminal.display;
  if (!editor_) return;
  editor_->SetDisplay(terminal.display);
  if (terminal.columns > 0) editor_->Resize(terminal.columns, terminal.rows);
  if (terminal.hidden != std::exchange(hidden_, terminal.hidden)) terminal.hidden ? editor_->Hide() : editor_->Show();
  PassOutput();
}

void LineReader::ShowAbove(std::string_view text) {
  if (edits_) {
    editor_->Hide();
    Erase();
  }
  if (editor_ && !text.empty()) output_->FreshLine();
  output_->Append(text);
  if (!edits_) return;
  output_->FreshLine();  // Show() draws from the first column
  editor_->Show();
  PassOutput();
}

void LineReader::EndUnseenLine() {
  if (display_ == LineEditor::Display::kFull) output_->Append("\n");
}

void LineReader::Leave() {
  if (!edits_) return;
  editor_->SetDisplay(LineEditor::Display::kNone);
  Erase();
}

// Passes the editor's output on, after which no line is on the screen. Only a full display was erased: on others the
// prompt and the other end's echo stay, and need a line end.
void LineReader::Erase() {
  PassOutput();
  if (display_ == LineEditor::Display::kFull) output_->MarkLineStart();
}

void LineReader::PassOutput() { output_->Append(editor_->TakeOutput()); }

}  // namespace cli::internal
