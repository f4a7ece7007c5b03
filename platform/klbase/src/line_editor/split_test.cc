// Random typing: the operator's screen must not depend on how the bytes arrive, nor on how it came to be.
#include <ostream>
#include <random>

#include "platform/klbase/testing/line_editor_fixture.h"

namespace cli::internal {
namespace {

constexpr std::string_view kPieces[] = {
    "a",        "b",          "open",    " ",          "st",
    "playd ",   "ä",          "日本",    "😀",          "e\xcc\x81",
    "\xcc\x81", "\xe4",       "\xff",    "\xe2\x82",   "\xc2\x9b",
    "\t",       "\x7f",       "\x08",    "\x01",       "\x05",
    "\x02",     "\x06",       "\x04",    "\x0b",       "\x15",
    "\x17",     "\x19",       "\x14",    "\x10",       "\x0e",
    "\x1f",     "\x12",       "\x13",    "\x07",       "\x03",
    "\x1b[A",   "\x1b[B",     "\x1b[C",  "\x1b[D",     "\x1b[H",
    "\x1b[F",   "\x1bOA",     "\x1b[3~", "\x1b[1;5D",  "\x1b[1;5C",
    "\x1b[15~", "\x1b[[A",    "\x1b[8$", "\033b",      "\033f",
    "\033d",    "\x1b\x7f",   "\x1b.",   "\x1by",      "\x1bp",
    "\x1b[5~",  "\x1b]0;x\a", "\x1b",    "\x1b[200~",  "\x1b[201~",
    "\r\n",     "\r",         "\n",      "word word ", "01234567890123456789",
};
constexpr std::string_view kLineEnds[] = {"\r\n", "\n", "\r", "\x0c"};

class RandomTypingTest : public LineEditorTest {
 protected:
  static constexpr int kColumns = 23;
  static constexpr int kRows = 500;  // so that nothing scrolls: how far depends on the paints in between

  std::string RandomInput(std::mt19937& random) {
    std::string input;
    const std::size_t pieces = random() % 50;
    for (std::size_t i = 0; i < pieces; ++i) input += kPieces[random() % std::size(kPieces)];
    if (random() % 4 == 0) input += kLineEnds[random() % std::size(kLineEnds)];
    if (random() % 20 == 0) input.push_back('\0');
    return input;
  }

  struct Seen {
    std::string screen;
    int row;
    int column;
    std::vector<std::string> events;
    bool operator==(const Seen&) const = default;
    friend void PrintTo(const Seen& seen, std::ostream* out) {
      *out << seen.screen << "\ncursor " << seen.row << "," << seen.column << " "
           << testing::PrintToString(seen.events);
    }
  };
  Seen Look() const { return {screen_.Text(), screen_.Row(), screen_.Column(), events_}; }

  void Begin() {
    events_.clear();
    UseTerminal(kColumns, kRows);
  }
};

TEST_F(RandomTypingTest, TheResultDoesNotDependOnHowTheInputIsSplit) {
  for (const char* line : {"open first.mp4", "stop", "日本語 very long line that wraps around", "SetQulity high"}) {
    history_.Add(line);
  }
  for (unsigned seed = 0; seed < 200; ++seed) {
    std::mt19937 random(seed);
    const std::string input = RandomInput(random);
    Begin();
    TypeBytes(input);
    const Seen whole = Look();
    Begin();
    for (const char byte : input) TypeBytes({&byte, 1});
    ASSERT_EQ(Look(), whole) << "byte by byte, seed " << seed << ": " << testing::PrintToString(input);
    Begin();
    for (std::size_t i = 0; i < input.size();) {
      const std::size_t size = std::min<std::size_t>(1 + random() % 7, input.size() - i);
      TypeBytes(std::string_view(input).substr(i, size));
      i += size;
    }
    ASSERT_EQ(Look(), whole) << "in random pieces, seed " << seed << ": " << testing::PrintToString(input);
  }
}

TEST_F(RandomTypingTest, WhatIsPaintedInPiecesIsWhatIsPaintedAtOnce) {
  history_.Add("日本語 very long line that wraps around");
  for (unsigned seed = 1000; seed < 1060; ++seed) {
    std::mt19937 random(seed);
    Begin();
    for (int i = 0; i < 30; ++i) {
      TypeBytes(kPieces[random() % std::size(kPieces)]);
      const Seen grown = Look();
      editor_->Hide();
      editor_->Show();
      Show();
      ASSERT_EQ(Look(), grown) << "seed " << seed << ", step " << i;
    }
  }
}

TEST_F(RandomTypingTest, AnyBytesInASmallWindowKeepTheCursorInIt) {
  for (unsigned seed = 2000; seed < 2100; ++seed) {
    std::mt19937 random(seed);
    UseTerminal(11, 3);
    for (int i = 0; i < 300; ++i) {
      if (random() % 3 == 0) {
        const char byte = static_cast<char>(random());
        TypeBytes({&byte, 1});
      } else {
        TypeBytes(kPieces[random() % std::size(kPieces)]);
      }
      ASSERT_EQ(screen_.Unknown(), "") << "seed " << seed;
      ASSERT_FALSE(screen_.HasPendingWrap()) << "seed " << seed;
    }
    Type("<C-g><C-c>ok<Enter>");
    ASSERT_EQ(events_.back(), "ok") << "seed " << seed;
    ASSERT_THAT(screen_.Text(), testing::HasSubstr("main> ok\nmain>"));
  }
}

}  // namespace
}  // namespace cli::internal
