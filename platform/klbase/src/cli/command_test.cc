#include "cli/command.h"

#include <gtest/gtest.h>

#include <limits>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
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
