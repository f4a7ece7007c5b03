#include "text/clean_text.h"

namespace klbase_internal {
namespace {

using Kind = TextRun::Kind;

constexpr unsigned char kDelete = 0x7f;

// What the first byte of a character says of it: the length, and the bounds of the second byte, which keep out
// surrogates, numbers over U+10FFFF and characters written longer than they need be.
struct Lead {
  std::size_t length = 0;  // 0: no character begins so
  unsigned char low = 0x80;
  unsigned char high = 0xbf;
};

Lead LeadOf(unsigned char first) {
  if (first < 0xc2 || first > 0xf4) return {};
  if (first < 0xe0) return {2};
  if (first == 0xe0) return {3, 0xa0, 0xbf};
  if (first == 0xed) return {3, 0x80, 0x9f};
  if (first < 0xf0) return {3};
  if (first == 0xf0) return {4, 0x90, 0xbf};
  if (first == 0xf4) return {4, 0x80, 0x8f};
  return {4};
}

// The character at the beginning of `text`, whose first byte is not ASCII.
TextRun Character(std::string_view text) {
  const auto byte = [text](std::size_t at) { return static_cast<unsigned char>(text[at]); };
  const Lead lead = LeadOf(byte(0));
  if (lead.length == 0) return {Kind::kUnsafe, 1};
  for (std::size_t at = 1; at < lead.length; ++at) {
    if (at == text.size()) return {Kind::kCut, at};
    const bool fits = at == 1 ? byte(1) >= lead.low && byte(1) <= lead.high : (byte(at) & 0xc0) == 0x80;
    if (!fits) return {Kind::kUnsafe, at};
  }
  const bool control = byte(0) == 0xc2 && byte(1) < 0xa0;
  return {control ? Kind::kUnsafe : Kind::kPlain, lead.length};
}

TextRun RunOfOne(std::string_view text) {
  const auto first = static_cast<unsigned char>(text.front());
  if (first < ' ' || first == kDelete) return {Kind::kControl, 1};
  return first < kDelete ? TextRun{Kind::kPlain, 1} : Character(text);
}

// A run as a screen takes it.
struct Step {
  enum class Kind { kStays, kWrittenOut, kUndecided } kind;
  std::size_t length;
};

Step StepAt(std::string_view text) {
  const TextRun run = FirstRun(text);
  if (text.starts_with("\r\n")) return {Step::Kind::kStays, 2};
  if (run.kind == Kind::kCut || text == "\r") return {Step::Kind::kUndecided, run.length};
  const bool stays = run.kind == Kind::kPlain || text.front() == '\n' || text.front() == '\t';
  return {stays ? Step::Kind::kStays : Step::Kind::kWrittenOut, run.length};
}

// The number of bytes at the beginning of `text` that stay as they are.
std::size_t Unchanged(std::string_view text) {
  std::size_t length = 0;
  while (length < text.size()) {
    const Step step = StepAt(text.substr(length));
    if (step.kind != Step::Kind::kStays) break;
    length += step.length;
  }
  return length;
}

}  // namespace

TextRun FirstRun(std::string_view text) {
  TextRun first = RunOfOne(text);
  if (first.kind != Kind::kPlain) return first;
  while (first.length < text.size()) {
    const TextRun next = RunOfOne(text.substr(first.length));
    if (next.kind != Kind::kPlain) break;
    first.length += next.length;
  }
  return first;
}

std::string_view ScreenFilter::Pass(std::string_view piece) {
  std::string().swap(shown_);  // its memory too: a session lives long
  if (held_back_.empty() && Unchanged(piece) == piece.size()) return piece;
  const std::string joined = held_back_.append(piece);
  std::string_view rest = joined;
  Convert(rest, true);
  held_back_ = rest;
  held_back_.shrink_to_fit();
  return shown_;
}

std::string_view ScreenFilter::Finish() {
  std::string().swap(shown_);
  std::string_view rest = held_back_;
  Convert(rest, false);
  held_back_.clear();
  return shown_;
}

void ScreenFilter::Convert(std::string_view& text, bool more_may_come) {
  while (!text.empty()) {
    const Step step = StepAt(text);
    if (step.kind == Step::Kind::kUndecided && more_may_come) return;
    const std::string_view bytes = text.substr(0, step.length);
    step.kind == Step::Kind::kStays ? void(shown_.append(bytes)) : AppendWrittenOut(shown_, bytes);
    text.remove_prefix(step.length);
  }
}

std::string CleanForScreen(std::string_view text) {
  ScreenFilter filter;
  std::string shown(filter.Pass(text));
  return shown.append(filter.Finish());
}

std::string CleanOnOneLine(std::string_view text) {
  std::string line;
  while (!text.empty()) {
    const TextRun run = FirstRun(text);
    const std::string_view bytes = text.substr(0, run.length);
    run.kind == Kind::kPlain ? void(line.append(bytes)) : AppendWrittenOut(line, bytes);
    text.remove_prefix(run.length);
  }
  return line;
}

}  // namespace klbase_internal
