#include "cli/command.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <istream>
#include <limits>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/testing/fake_session.h"

namespace cli::internal {
namespace {

using vextest::FakeSession;

std::unique_ptr<Command> SetCommand(std::vector<std::string> descriptions = {}) {
  return MakeCommand(
      "set", [](std::ostream& out, const std::string& word, const unsigned int& level) { out << word << "=" << level; },
      "set debug level", std::move(descriptions));
}

std::string HelpText(const Command& command) {
  std::ostringstream out;
  command.Help(out);
  return out.str();
}

TEST(CommandTest, HelpShowsDescriptionsInAngleBrackets) {
  EXPECT_EQ(HelpText(*SetCommand({"debug", "level(int)"})), " - set <debug> <level(int)>\n\tset debug level\n");
}

TEST(CommandTest, HelpShowsTypeNamesWithoutDescriptions) {
  EXPECT_EQ(HelpText(*SetCommand()), " - set <string> <unsigned int>\n\tset debug level\n");
}

TEST(CommandTest, HelpOfACommandWithoutParametersIsItsName) {
  EXPECT_EQ(HelpText(*MakeCommand(
                "description", [](std::ostream&) {}, "apisdk tools")),
            " - description\n\tapisdk tools\n");
}

TEST(CommandTest, HelpKeepsBracketsInsideADescription) {
  const auto command = MakeCommand("SetQulity", [](std::ostream&, const std::string&) {}, "send a proto message",
                                   {"qulity<low middle high>"});
  EXPECT_EQ(HelpText(*command), " - SetQulity <qulity<low middle high>>\n\tsend a proto message\n");
}

TEST(CommandTest, AnExampleIsTheNameWithTheWordsGiven) {
  const auto command = MakeCommand(
      "go", [](std::ostream&, const std::string&, int) {}, "help", {"where", "times"}, "up 2");
  EXPECT_EQ(command->Example(), "go up 2");
  EXPECT_EQ(HelpText(*command), " - go <where> <times>\n\thelp\n");
}

TEST(CommandTest, WithoutWordsForItThereIsNoExample) { EXPECT_EQ(SetCommand()->Example(), ""); }

TEST(CommandTest, ACommandWithoutParametersIsItsOwnExample) {
  EXPECT_EQ(MakeCommand(
                "description", [](std::ostream&) {}, "apisdk tools")
                ->Example(),
            "description");
}

TEST(CommandTest, ExecRunsTheHandlerWithConvertedWords) {
  FakeSession session;
  EXPECT_TRUE(SetCommand()->Exec({"set", "x", "3"}, session));
  EXPECT_EQ(session.TakeText(), "x=3");
}

TEST(CommandTest, ExecRefusesOtherWordCounts) {
  FakeSession session;
  const auto command = SetCommand();
  EXPECT_FALSE(command->Exec({}, session));
  EXPECT_FALSE(command->Exec({"set", "x"}, session));
  EXPECT_FALSE(command->Exec({"set", "x", "3", "4"}, session));
  EXPECT_EQ(session.TakeText(), "");
}

TEST(CommandTest, ExecComparesTheNameExactly) {
  FakeSession session;
  EXPECT_FALSE(SetCommand()->Exec({"Set", "x", "3"}, session));
  EXPECT_FALSE(SetCommand()->Exec({"se", "x", "3"}, session));
}

TEST(CommandTest, ABadWordThrowsBeforeTheHandlerRuns) {
  FakeSession session;
  try {
    SetCommand()->Exec({"set", "x", "12a"}, session);
    FAIL() << "nothing was thrown";
  } catch (const std::bad_cast& e) {
    EXPECT_STREQ(e.what(), "bad from_string conversion: source string value could not be interpreted as target");
  }
  EXPECT_EQ(session.TakeText(), "");
}

TEST(CommandTest, TheConversionErrorNamesTheWordAndTheType) {
  FakeSession session;
  try {
    SetCommand()->Exec({"set", "x", "12a"}, session);
    FAIL() << "nothing was thrown";
  } catch (const bad_conversion& e) {
    ASSERT_NE(e.Word(), nullptr);
    EXPECT_EQ(*e.Word(), "12a");
    EXPECT_STREQ(e.Type(), "unsigned int");
  }
}

TEST(CommandTest, ADisabledCommandNeitherRunsNorIsListedNorCompletes) {
  FakeSession session;
  const auto command = SetCommand();
  command->Disable();
  EXPECT_FALSE(command->Exec({"set", "x", "3"}, session));
  EXPECT_EQ(HelpText(*command), "");
  EXPECT_TRUE(command->GetCompletionRecursive("s").empty());
  command->Enable();
  EXPECT_TRUE(command->Exec({"set", "x", "3"}, session));
  EXPECT_EQ(command->GetCompletionRecursive("s"), std::vector<std::string>{"set"});
}

TEST(CommandTest, ADisabledCommandDoesNotEvenLookAtItsWords) {
  FakeSession session;
  const auto command = SetCommand();
  command->Disable();
  EXPECT_FALSE(command->Exec({"set", "x", "12a"}, session));
}

TEST(CommandTest, CompletionIsACaseSensitivePrefixTest) {
  const auto command = MakeCommand(
      "SetQulity", [](std::ostream&) {}, "");
  EXPECT_EQ(command->GetCompletionRecursive(""), std::vector<std::string>{"SetQulity"});
  EXPECT_EQ(command->GetCompletionRecursive("SetQulity"), std::vector<std::string>{"SetQulity"});
  EXPECT_TRUE(command->GetCompletionRecursive("set").empty());
  EXPECT_TRUE(command->GetCompletionRecursive("SetQulityX").empty());
}

TEST(CommandTest, ThirteenParametersArriveInOrder) {
  using S = const std::string&;
  const auto command = MakeCommand(
      "open",
      [](std::ostream& out, S a, S b, S c, S d, S e, S f, S g, S h, S i, S j, S k, S l, S m) {
        for (const auto& word : {a, b, c, d, e, f, g, h, i, j, k, l, m}) out << word;
      },
      "");
  FakeSession session;
  EXPECT_TRUE(command->Exec({"open", "a", "b", "c", "d", "e", "f", "g", "h", "i", "j", "k", "l", "m"}, session));
  EXPECT_EQ(session.TakeText(), "abcdefghijklm");
}

TEST(CommandTest, AFunctionPointerIsAHandlerToo) {
  void (*handler)(std::ostream&, const std::string&) = [](std::ostream& out, const std::string& word) { out << word; };
  FakeSession session;
  EXPECT_TRUE(MakeCommand("say", handler, "")->Exec({"say", "yes"}, session));
  EXPECT_EQ(session.TakeText(), "yes");
}

// As a menu outside of this tree may build one: without MakeCommand().
template <typename... Params, typename Handler>
std::string RunWith(Handler handler, const std::vector<std::string>& words) {
  FakeSession session;
  VariadicFunctionCommand<Handler, Params...> command("x", std::move(handler), "help");
  std::vector<std::string> line = {"x"};
  line.insert(line.end(), words.begin(), words.end());
  EXPECT_TRUE(command.Exec(line, session));
  return session.TakeText();
}

TEST(CommandTest, AHandlerMayTakeEachValueToKeep) {
  std::string kept;
  EXPECT_EQ((RunWith<std::string, unsigned int>(
                [&kept](std::ostream& out, std::string&& text, unsigned int number) {
                  kept = std::move(text);
                  out << number;
                },
                {"a", "7"})),
            "7");
  EXPECT_EQ(kept, "a");
}

TEST(CommandTest, AHandlerMayTakeOtherTypesThanItsParameters) {
  EXPECT_EQ((RunWith<std::string, unsigned int>(
                [](std::ostream& out, std::string_view text, const std::uint64_t& number) { out << text << number; },
                {"a", "7"})),
            "a7");
  EXPECT_EQ((RunWith<unsigned int>([](std::ostream& out, const auto& any) { out << any; }, {"7"})), "7");
}

TEST(CommandTest, AHandlerMayHaveAState) {
  FakeSession session;
  const auto count = [number = 0](std::ostream& out) mutable { out << ++number; };
  const auto counter = MakeCommand("count", count, "");
  EXPECT_TRUE(counter->Exec({"count"}, session));
  EXPECT_TRUE(counter->Exec({"count"}, session));
  EXPECT_EQ(session.TakeText(), "12");
}

struct Adder {
  void operator()(std::ostream& out, int value) { out << (sum += value) << ' '; }
  int sum = 0;
};

TEST(CommandTest, AHandlersCallOperatorNeedNotBeConst) {
  FakeSession session;
  const auto adder = MakeCommand("add", Adder(), "");
  EXPECT_TRUE(adder->Exec({"add", "3"}, session));
  EXPECT_TRUE(adder->Exec({"add", "-1"}, session));
  EXPECT_EQ(session.TakeText(), "3 2 ");
}

struct MoveOnly {
  explicit MoveOnly(std::string text_to_write) : text(std::move(text_to_write)) {}
  MoveOnly(const MoveOnly&) = delete;
  MoveOnly& operator=(const MoveOnly&) = delete;
  MoveOnly(MoveOnly&&) = default;
  MoveOnly& operator=(MoveOnly&&) = default;
  ~MoveOnly() = default;
  void operator()(std::ostream& out) const { out << text; }
  std::string text;
};

TEST(CommandTest, AHandlerThatCanOnlyBeMovedIsAHandlerToo) {
  FakeSession session;
  VariadicFunctionCommand<MoveOnly> command("x", MoveOnly("owned"), "");
  EXPECT_TRUE(command.Exec({"x"}, session));
  EXPECT_EQ(session.TakeText(), "owned");
}

// "4:3", read by the stream like any other type.
struct Ratio {
  int width = 0;
  int height = 0;
  friend std::istream& operator>>(std::istream& in, Ratio& ratio) {
    char colon = 0;
    if (!(in >> ratio.width >> colon >> ratio.height) || colon != ':') in.setstate(std::ios::failbit);
    return in;
  }
};

TEST(CommandTest, AnyTypeThatTheStreamCanReadIsAParameter) {
  const auto handler = [](std::ostream& out, std::int64_t a, unsigned short b, char c, const Ratio& d) {
    out << a << ' ' << b << ' ' << c << ' ' << d.width << '/' << d.height;
  };
  FakeSession session;
  const auto command = MakeCommand("x", handler, "help");
  EXPECT_TRUE(command->Exec({"x", "-9000000000", "65535", "q", "4:3"}, session));
  EXPECT_EQ(session.TakeText(), "-9000000000 65535 q 4/3");
  EXPECT_THROW(command->Exec({"x", "1", "65536", "q", "4:3"}, session), bad_conversion);
  EXPECT_THROW(command->Exec({"x", "1", "-1", "q", "4:3"}, session), bad_conversion);
  EXPECT_THROW(command->Exec({"x", "1", "1", "q", "4:"}, session), bad_conversion);
  EXPECT_EQ(HelpText(*command), " - x <long> <unsigned short> <char> <value>\n\thelp\n");
  const auto described = MakeCommand("x", handler, "help", {"a", "b", "c", "d"});
  EXPECT_EQ(HelpText(*described), " - x <a> <b> <c> <d>\n\thelp\n");
}

TEST(CommandTest, OfTwoWordsThatDoNotConvertTheFirstIsNamed) {
  const auto command = MakeCommand("x", [](std::ostream&, unsigned int, unsigned int, unsigned int) {}, "",
                                   {"first", "second", "third"});
  FakeSession session;
  try {
    command->Exec({"x", "1", "bad", "bad"}, session);
    ADD_FAILURE() << "nothing was thrown";
  } catch (const bad_conversion& e) {
    EXPECT_EQ(*e.Parameter(), "second");
  }
}

// Reads no word that is the one before it.
struct NoRepetition {
  static inline std::string last;
  std::string text;
  friend std::istream& operator>>(std::istream& in, NoRepetition& word) {
    if (in >> word.text && word.text == last) in.setstate(std::ios::failbit);
    last = word.text;
    return in;
  }
};

TEST(CommandTest, ThePlaceOfAWordThatDoesNotConvertIsKnownNotGuessed) {
  const auto command =
      MakeCommand("x", [](std::ostream&, const NoRepetition&, const NoRepetition&) {}, "", {"first", "second"});
  FakeSession session;
  NoRepetition::last.clear();
  try {
    command->Exec({"x", "same", "same"}, session);
    ADD_FAILURE() << "nothing was thrown";
  } catch (const bad_conversion& e) {
    EXPECT_EQ(*e.Parameter(), "second");
  }
}

TEST(CommandTest, ExceptionsOfTheHandlerPassThrough) {
  FakeSession session;
  const auto command = MakeCommand(
      "x", [](std::ostream&) { throw std::runtime_error("broken"); }, "");
  EXPECT_THROW(command->Exec({"x"}, session), std::runtime_error);
}

TEST(CommandTest, ABadConversionOfTheHandlersOwnIsNoParameters) {
  FakeSession session;
  const auto command =
      MakeCommand("x", [](std::ostream&, const unsigned int&) { from_string<unsigned int>("7x"); }, "", {"level"});
  try {
    command->Exec({"x", "7"}, session);
    ADD_FAILURE() << "nothing was thrown";
  } catch (const bad_conversion& e) {
    EXPECT_EQ(*e.Word(), "7x");
    EXPECT_EQ(e.Parameter(), nullptr);
  }
}

TEST(WordErrorTest, ItIsItsBaseWithTheSameMessageAndKnowsItsWord) {
  try {
    throw word_error<std::out_of_range>("1e99", "stof");
  } catch (const std::out_of_range& e) {
    EXPECT_STREQ(e.what(), "stof");
    const auto* about = dynamic_cast<const about_word*>(&e);
    ASSERT_NE(about, nullptr);
    EXPECT_EQ(*about->Word(), "1e99");
  }
}

TEST(FromStringTest, TakesUnsignedDecimals) {
  EXPECT_EQ(from_string<unsigned int>("12"), 12U);
  EXPECT_EQ(from_string<unsigned int>("0"), 0U);
  EXPECT_EQ(from_string<unsigned int>("007"), 7U);
  EXPECT_EQ(from_string<unsigned int>("+7"), 7U);
  EXPECT_EQ(from_string<unsigned int>("4294967295"), std::numeric_limits<unsigned int>::max());
  EXPECT_EQ(from_string<unsigned int>(" 12 "), 12U);
}

TEST(FromStringTest, RefusesWhatIsNoUnsignedDecimal) {
  for (const char* word :
       {"12a", "a", "", " ", "-1", " -1", "4294967296", "99999999999999999999", "0x10", "1 2", "1.5"}) {
    EXPECT_THROW(from_string<unsigned int>(word), bad_conversion) << word;
  }
}

TEST(FromStringTest, TakesAWordOfText) {
  EXPECT_EQ(from_string<std::string>("high"), "high");
  EXPECT_EQ(from_string<std::string>(" high "), "high");
  EXPECT_EQ(from_string<std::string>("m\xc3\xbc"), "m\xc3\xbc");
}

TEST(FromStringTest, RefusesTextThatIsEmptyOrHasABlankInside) {
  EXPECT_THROW(from_string<std::string>(""), bad_conversion);
  EXPECT_THROW(from_string<std::string>("  "), bad_conversion);
  EXPECT_THROW(from_string<std::string>("two words"), bad_conversion);
}

TEST(SelectTest, ConvertsEachWordAndCallsTheLastLink) {
  const std::vector<std::string> words = {"a", "7"};
  std::string seen;
  const auto handler = [&seen](const std::string& text, const unsigned int& number) {
    seen = text + std::to_string(number);
  };
  Select<std::string, unsigned int>::Exec(handler, words.begin(), words.end());
  EXPECT_EQ(seen, "a7");
}

TEST(SelectTest, StopsAtTheFirstWordThatDoesNotConvert) {
  const std::vector<std::string> words = {"a", "7"};
  bool called = false;
  const auto handler = [&called](const unsigned int&, const unsigned int&) { called = true; };
  EXPECT_THROW((Select<unsigned int, unsigned int>::Exec(handler, words.begin(), words.end())), bad_conversion);
  EXPECT_FALSE(called);
}

}  // namespace
}  // namespace cli::internal
