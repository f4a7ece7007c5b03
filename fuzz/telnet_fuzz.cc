// From the bytes of a connection to the lines that are run: the telnet filter with the line editor behind it, and the
// line splitter for programs. The same bytes in any pieces give the same lines, replies and screen.
//
// The input: the kind of client, the sizes of the pieces (a line), then the bytes.
#include <optional>
#include <vector>

#include "console/session/input/line_splitter.h"
#include "console/tcp/telnet_filter.h"
#include "fuzz/fuzz.h"
#include "fuzz/operator.h"

namespace {

using cli::internal::LineEditor;
using cli::internal::LineSplitter;
using cli::internal::TelnetFilter;
using fuzz::Input;

constexpr int kColumns = 33;
constexpr int kRows = 40;

// Stands for a connection and its session: takes all that the filter finds to a line editor.
class Connection : private TelnetFilter::Receiver {
 public:
  explicit Connection(bool offers) : operator_(kColumns, kRows, LineEditor::Display::kPrompt) {
    if (offers) filter_.Offer();
    replies_ = filter_.TakeReplies();
  }

  void Receive(std::string_view bytes) {
    filter_.Receive(bytes, *this);
    replies_ += filter_.TakeReplies();
    received_ += bytes.size();
    // A reply to a command of three bytes has three, that to a request of the terminal's type six; the offers are few.
    FUZZ_CHECK(replies_.size() <= 64 + 2 * received_, fuzz::Detail(replies_.size()));
  }

  void CheckEqual(Connection& other, bool same_screen) {
    FUZZ_CHECK_EQUAL(fuzz::Detail(other.events_), fuzz::Detail(events_));
    FUZZ_CHECK_EQUAL(fuzz::Detail(other.operator_.Events()), fuzz::Detail(operator_.Events()));
    FUZZ_CHECK_EQUAL(other.replies_, replies_);
    // The rows that a terminal has scrolled depend on the screens in between.
    const bool scrolled = Screen().ScrolledRows() > 0 || other.Screen().ScrolledRows() > 0;
    if (!same_screen || scrolled || odd_window_) return;
    FUZZ_CHECK_EQUAL(other.Screen().Text(), Screen().Text());
    FUZZ_CHECK_EQUAL(other.Screen().Row(), Screen().Row());
    FUZZ_CHECK_EQUAL(other.Screen().Column(), Screen().Column());
    FUZZ_CHECK_EQUAL(other.Screen().BracketedPaste(), Screen().BracketedPaste());
  }

  cli::internal::TestScreen& Screen() { return operator_.Terminal(); }

 private:
  // The filter may hand data on in other pieces, so the typed text is compared, not the pieces.
  void OnData(std::string_view bytes) override { operator_.Type(bytes); }
  void OnInterrupt() override { operator_.Type("\x03"); }
  void OnAreYouThere() override {
    events_.emplace_back("are you there");
    operator_.Editor().Hide();
    operator_.Show();
    operator_.Editor().Show();
    operator_.Show();
  }
  void OnWindowSize(int columns, int rows) override {
    FUZZ_CHECK(columns >= 0 && columns <= 65535 && rows >= 0 && rows <= 65535, fuzz::Detail(columns));
    events_.push_back("window " + std::to_string(columns) + "x" + std::to_string(rows));
    if (columns >= 10 && columns <= 200 && rows >= 2 && rows <= 60) {
      Screen().Resize(columns, rows);
    } else {
      odd_window_ = true;
    }
    operator_.Editor().Resize(columns, rows);
    operator_.Show();
  }
  void OnTerminalType(const std::string& name) override {
    events_.push_back("terminal " + name);
    filter_.StopEcho();
  }
  void OnEcho(bool ours) override {
    events_.emplace_back(ours ? "echo is ours" : "echo is theirs");
    operator_.Editor().SetDisplay(ours ? LineEditor::Display::kFull : LineEditor::Display::kPrompt);
    operator_.Show();
  }
  void OnProtocolError(std::string_view text) override {
    FUZZ_CHECK(!failed_, "data comes after the protocol was broken");
    failed_ = true;
    events_.push_back("error " + std::string(text));
  }

  TelnetFilter filter_;
  fuzz::Operator operator_;
  std::vector<std::string> events_;
  std::string replies_;
  std::size_t received_ = 0;
  bool odd_window_ = false;
  bool failed_ = false;
};

// The sizes come round again.
template <typename Receive>
void InPieces(std::string_view bytes, std::string_view sizes, Receive receive) {
  for (std::size_t i = 0; !bytes.empty(); ++i) {
    const auto size = sizes.empty() ? 1 : 1 + static_cast<unsigned char>(sizes[i % sizes.size()]) % 32;
    const std::string piece(bytes.substr(0, size));  // a copy of its own: a byte too far is noticed
    bytes.remove_prefix(piece.size());
    receive(piece);
  }
}

void CheckOperator(std::string_view bytes, std::string_view sizes, bool offers) {
  Connection whole(offers);
  whole.Receive(bytes);
  Connection pieces(offers);
  InPieces(bytes, sizes, [&pieces](std::string_view piece) { pieces.Receive(piece); });
  whole.CheckEqual(pieces, true);
}

// --- programs: no protocol, no editing

// Lines, "(interrupt)" and "(too long)", by the rules for line ends alone.
std::vector<std::string> ExpectedLines(std::string_view bytes) {
  std::vector<std::string> lines;
  std::string line;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const char c = bytes[i];
    if (c == '\x03') {
      line.clear();
      lines.emplace_back("(interrupt)");
    } else if (c == '\r' || c == '\n') {
      lines.push_back(line.size() > cli::internal::kMaxLineBytes ? "(too long)" : line);
      line.clear();
      const bool pair = c == '\r' && i + 1 < bytes.size() && (bytes[i + 1] == '\n' || bytes[i + 1] == '\0');
      if (pair) ++i;
    } else {
      line += c;
    }
  }
  return lines;
}

std::vector<std::string> SplitLines(std::string_view bytes, std::string_view sizes) {
  using Event = LineEditor::Event;
  std::vector<std::string> lines;
  LineSplitter splitter;
  InPieces(bytes, sizes, [&](std::string_view piece) {
    while (!piece.empty()) {
      const auto result = splitter.Feed(piece);
      FUZZ_CHECK(result.consumed > 0 && result.consumed <= piece.size(), fuzz::Detail(result.consumed));
      piece.remove_prefix(result.consumed);
      if (result.event == Event::kLine) lines.push_back(splitter.TakeLine());
      if (result.event == Event::kTooLong) lines.emplace_back("(too long)");
      if (result.event == Event::kInterrupt) lines.emplace_back("(interrupt)");
    }
  });
  return lines;
}

void CheckProgram(std::string_view bytes, std::string_view sizes) {
  const auto expected = ExpectedLines(bytes);
  FUZZ_CHECK_EQUAL(SplitLines(bytes, sizes), expected);
  FUZZ_CHECK_EQUAL(SplitLines(bytes, "\x1f"), expected);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  const int kind = input.Number(0, 3);
  const std::string_view sizes = input.Line();
  const std::string_view bytes = input.Rest();
  kind == 3 ? CheckProgram(bytes, sizes) : CheckOperator(bytes, sizes, kind != 2);
  return 0;
}
