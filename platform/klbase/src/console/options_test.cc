#include "console/options.h"

#include <stdexcept>
#include <string>

#include "gtest/gtest.h"
#include "platform/testing/environment.h"

namespace cli::internal {
namespace {

using Variable = vextest::ScopedVariable;

TEST(ConsoleOptionsTest, DefaultsAreLoopbackAnd64Sessions) {
  const ConsoleOptions options = OptionsFromEnvironment(false, 50000);
  EXPECT_EQ(options.address, "127.0.0.1");
  EXPECT_EQ(options.port, 50000);
  EXPECT_EQ(options.max_sessions, 64);
  EXPECT_EQ(options.password_file, "");
  EXPECT_EQ(options.allow, "");
  EXPECT_EQ(options.idle.count(), 0);
}

TEST(ConsoleOptionsTest, TheEnvironmentIsTaken) {
  const Variable address("KLBASE_CONSOLE_ADDRESS", "::1");
  const Variable file("KLBASE_CONSOLE_PASSWORD_FILE", "/etc/pw");
  const Variable sessions("KLBASE_CONSOLE_MAX_SESSIONS", "500");
  const Variable allow("KLBASE_CONSOLE_ALLOW", "1000,@staff");
  const Variable idle("KLBASE_CONSOLE_IDLE_MINUTES", "15");
  const ConsoleOptions options = OptionsFromEnvironment(false, 0);
  EXPECT_EQ(options.address, "::1");
  EXPECT_EQ(options.password_file, "/etc/pw");
  EXPECT_EQ(options.max_sessions, 500);
  EXPECT_EQ(options.allow, "1000,@staff");
  EXPECT_EQ(options.idle, std::chrono::minutes(15));
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
