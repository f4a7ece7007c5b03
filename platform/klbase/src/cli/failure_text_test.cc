#include "cli/failure_text.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "cli/command.h"
#include "platform/testing/fake_session.h"

namespace cli::internal {
namespace {

template <typename Throw>
std::string TextOf(Throw function) {
  try {
    function();
  } catch (...) {
    return FailureText(std::current_exception());
  }
  return "nothing was thrown";
}

TEST(FailureTextTest, AConversionErrorNamesTheWordAndTheType) {
  EXPECT_EQ(TextOf([] { from_string<unsigned int>("12a"); }),
            "cannot take \"12a\" as <unsigned int> (bad from_string conversion: source string value could not be "
            "interpreted as target)");
}

TEST(FailureTextTest, StandardNumberConversionsAreExplained) {
  EXPECT_EQ(TextOf([] { (void)std::stoi("x"); }), "a word is not a number where one is expected (stoi)");
  EXPECT_EQ(TextOf([] { (void)std::stoul("99999999999999999999999"); }), "a number is too large or too small (stoul)");
}

TEST(FailureTextTest, AConversionErrorNamesTheParameterAsHelpShowsIt) {
  const auto command =
      MakeCommand("set", [](std::ostream&, const std::string&, const unsigned int&, const unsigned int&) {}, "",
                  {"debug", "level(int)", "other"});
  vextest::FakeSession session;
  EXPECT_EQ(TextOf([&] {
              command->Exec({"set", "12a", "12a", "12a"}, session);
            }),
            "cannot take \"12a\" as <level(int)> (bad from_string conversion: source string value could not be "
            "interpreted as target)");
}

TEST(FailureTextTest, AnErrorAboutAWordNamesIt) {
  EXPECT_EQ(TextOf([] { throw word_error<std::invalid_argument>("soon", "stoi"); }), "\"soon\" is not a number (stoi)");
  EXPECT_EQ(TextOf([] { throw word_error<std::out_of_range>("99999999999", "stoi"); }),
            "\"99999999999\" is too large or too small for this parameter (stoi)");
  EXPECT_EQ(TextOf([] { throw word_error<std::runtime_error>("eth9", "no such device"); }), "\"eth9\": no such device");
  EXPECT_EQ(TextOf([] { throw word_error<std::runtime_error>("eth9", "no eth9 here"); }), "no eth9 here");
}

TEST(FailureTextTest, OtherExceptionsSayWhatTheySay) {
  EXPECT_EQ(TextOf([] { throw std::invalid_argument("no such layer"); }), "no such layer");
  EXPECT_EQ(TextOf([] { throw std::logic_error("not loaded"); }), "not loaded");
  EXPECT_EQ(TextOf([] { throw 7; }), "it failed with an exception that has no message");
}

TEST(FailureTextTest, AMessageStaysOneLineAndDrivesNoTerminal) {
  EXPECT_EQ(TextOf([] { throw std::runtime_error("a\nb\x1b[2J"); }), "a b [2J");
  EXPECT_EQ(TextOf([] { throw word_error<std::invalid_argument>("a\x1b[2J", "stof"); }),
            "\"a [2J\" is not a number (stof)");
}

TEST(FailureTextTest, TheSecondSetOfControlCharactersAndBrokenUtf8AreWrittenOut) {
  EXPECT_EQ(TextOf([] {
              throw std::runtime_error(
                  "a\xc2\x9b"
                  "2J \xe4 größe");
            }),
            "a\\u009b2J \\xe4 größe");
}

}  // namespace
}  // namespace cli::internal
