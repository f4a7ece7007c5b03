#include "console/session/input/line_splitter.h"

#include <algorithm>
#include <utility>

namespace cli::internal {

LineEditor::Result LineSplitter::Feed(std::string_view input) {
  constexpr char kInterrupt = '\x03';
  static constexpr std::string_view kSpecial("\r\n\x03", 3);
  std::size_t at = 0;
  while (at < input.size()) {
    at += SkipRestOfLineEnd(input.substr(at));
    if (at == input.size()) break;
    const std::size_t end = std::min(input.find_first_of(kSpecial, at), input.size());
    // One byte more than the limit is enough to know that the line is too long, however much has come.
    if (!too_long_) line_.append(input.substr(at, std::min(end - at, kMaxLineBytes + 1)));
    if (line_.size() > kMaxLineBytes) {
      too_long_ = true;
      line_.clear();
    }
    at = end;
    if (at == input.size()) break;
    const char special = input[at++];
    after_cr_ = special == '\r';
    if (special != kInterrupt) return {at, EndLine()};
    line_.clear();
    too_long_ = false;
    return {at, LineEditor::Event::kInterrupt};
  }
  return {at, LineEditor::Event::kNone};
}

std::size_t LineSplitter::SkipRestOfLineEnd(std::string_view input) {
  // Without a byte nothing is decided: the LF or NUL may come with the next input.
  if (input.empty() || !std::exchange(after_cr_, false)) return 0;
  return input.front() == '\n' || input.front() == '\0' ? 1 : 0;
}

LineEditor::Event LineSplitter::EndLine() {
  return std::exchange(too_long_, false) ? LineEditor::Event::kTooLong : LineEditor::Event::kLine;
}

std::string LineSplitter::TakeLine() { return std::exchange(line_, {}); }

}  // namespace cli::internal
