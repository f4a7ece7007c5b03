// The console's parts that take a few lines each.
#include "console/console_options.h"
#include "console/console_test_support.h"
#include "console/failure_text.h"
#include "console/http_sniff.h"

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
  FakeSession session;
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

TEST(HttpSniffTest, RequestLinesAreRecognised) {
  EXPECT_TRUE(IsHttpRequestLine("GET / HTTP/1.1"));
  EXPECT_TRUE(IsHttpRequestLine("POST /x?y=z HTTP/1.0"));
  EXPECT_TRUE(IsHttpRequestLine("OPTIONS * HTTP/1.1"));
  EXPECT_TRUE(IsHttpRequestLine("PRI * HTTP/2.0"));
}

TEST(HttpSniffTest, CommandsAreNot) {
  EXPECT_FALSE(IsHttpRequestLine("show version"));
  EXPECT_FALSE(IsHttpRequestLine("GET the picture"));
  EXPECT_FALSE(IsHttpRequestLine("help HTTP/1.1"));
  EXPECT_FALSE(IsHttpRequestLine(""));
}

// An environment variable for one test.
class Variable {
 public:
  Variable(const char* name, const std::string& value) : name_(name) { ::setenv(name, value.c_str(), 1); }
  ~Variable() { ::unsetenv(name_); }
  Variable(const Variable&) = delete;
  Variable& operator=(const Variable&) = delete;

 private:
  const char* const name_;
};

TEST(ConsoleOptionsTest, DefaultsAreLoopbackAnd64Sessions) {
  const ConsoleOptions options = OptionsFromEnvironment(false, 50000);
  EXPECT_EQ(options.address, "127.0.0.1");
  EXPECT_EQ(options.port, 50000);
  EXPECT_EQ(options.max_sessions, 64);
  EXPECT_EQ(options.password_file, "");
}

TEST(ConsoleOptionsTest, TheEnvironmentIsTaken) {
  const Variable address("KLBASE_CONSOLE_ADDRESS", "::1");
  const Variable file("KLBASE_CONSOLE_PASSWORD_FILE", "/etc/pw");
  const Variable sessions("KLBASE_CONSOLE_MAX_SESSIONS", "500");
  const ConsoleOptions options = OptionsFromEnvironment(false, 0);
  EXPECT_EQ(options.address, "::1");
  EXPECT_EQ(options.password_file, "/etc/pw");
  EXPECT_EQ(options.max_sessions, 500);
}

TEST(ConsoleOptionsTest, ASessionLimitThatIsNoneIsRefused) {
  for (const char* value : {"0", "-1", "many", "12x", "99999999999"}) {
    const Variable sessions("KLBASE_CONSOLE_MAX_SESSIONS", value);
    try {
      OptionsFromEnvironment(false, 0);
      ADD_FAILURE() << value << " was taken";
    } catch (const std::runtime_error& e) {
      EXPECT_EQ(e.what(),
                "KLBASE_CONSOLE_MAX_SESSIONS is \"" + std::string(value) + "\"; set it to a number from 1 to 100000");
    }
  }
}

}  // namespace
}  // namespace cli::internal
