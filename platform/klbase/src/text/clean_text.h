// Text that came from outside, on its way to a screen or the log: nothing in it may act on a terminal.
//
// A terminal acts on control characters (below blank, DEL, and U+0080 to U+009F), and bytes that are not UTF-8 may be
// such characters to it. Each byte of those is written out as \x and two hexadecimal digits: \x1b, \xc2\x9b, \xff.
#ifndef KLBASE_TEXT_CLEAN_TEXT_H_
#define KLBASE_TEXT_CLEAN_TEXT_H_

#include <cstddef>
#include <string>
#include <string_view>

namespace klbase_internal {

struct TextRun {
  enum class Kind {
    kPlain,    // whole characters without any of those below
    kControl,  // one byte, below blank or DEL: line ends and tabs among them
    kUnsafe,   // a control character above ASCII, or bytes that are not UTF-8
    kCut,      // the beginning of a character, at the end of the text: UTF-8 as far as it goes
  };
  Kind kind;
  std::size_t length;  // bytes, at least one
};

// The run at the beginning of `text`, which must not be empty.
TextRun FirstRun(std::string_view text);

// Appends `bytes` written out to a string or a buffer.
template <typename Out>
void AppendWrittenOut(Out& out, std::string_view bytes) {
  constexpr char kHex[] = "0123456789abcdef";
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    for (const char digit : {'\\', 'x', kHex[byte >> 4], kHex[byte & 15]}) out.push_back(digit);
  }
}

// A stream of text for a screen, in pieces that may be cut anywhere. Tabs and line ends ("\n" and "\r\n") stay; the
// rest of what a terminal acts on is written out. One thread at a time.
class ScreenFilter {
 public:
  // The text to show for `piece`, behind the pieces before. It is valid until the next call, and while `piece` is. The
  // beginning of a character and a CR are held back until the next byte tells what they are.
  std::string_view Pass(std::string_view piece);
  // The text to show for what was held back, when nothing follows it.
  std::string_view Finish();

 private:
  // Moves text from the beginning of `text` to shown_. What stays in `text` needs more bytes.
  void Convert(std::string_view& text, bool more_may_come);

  std::string held_back_;
  std::string shown_;
};

// The same for a whole text.
std::string CleanForScreen(std::string_view text);

// The same without tabs and line ends, which are written out, too.
std::string CleanOnOneLine(std::string_view text);

}  // namespace klbase_internal

#endif  // KLBASE_TEXT_CLEAN_TEXT_H_
