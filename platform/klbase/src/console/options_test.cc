#include "console/options.h"

#include <stdexcept>
#include <string>

#include "gtest/gtest.h"
#include "platform/testing/environment.h"
#include "platform/testing/scratch_folder.h"

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

TEST(ConsoleOptionsTest, TheControlSocketIsWhereTheEnvironmentSays) {
  const Variable named("KLBASE_CONSOLE_SOCKET", "/tmp/a.sock");
  const ControlSocketPath socket = OptionsFromEnvironment(false, 0).control_socket;
  EXPECT_EQ(socket.path, "/tmp/a.sock");
  EXPECT_TRUE(socket.asked_for);
  EXPECT_FALSE(socket.make_folder);
}

TEST(ConsoleOptionsTest, NoneIsNoControlSocket) {
  const vextest::ScratchFolder folder;
  const Variable named("KLBASE_CONSOLE_SOCKET", "none");
  EXPECT_EQ(ControlSocketFromEnvironment(folder.Path()).path, "");
}

TEST(ConsoleOptionsTest, TheServicesFolderComesBeforeTheUsers) {
  const vextest::ScratchFolder folder;
  const Variable named("KLBASE_CONSOLE_SOCKET", "");
  const Variable runtime("XDG_RUNTIME_DIR", "/run/user/7");
  const ControlSocketPath service = ControlSocketFromEnvironment(folder.Path());
  EXPECT_EQ(service.path, folder.Path() + "/console.sock");
  EXPECT_FALSE(service.asked_for);
  const ControlSocketPath user = ControlSocketFromEnvironment(folder / "no");
  EXPECT_EQ(user.path, "/run/user/7/vextool/console.sock");
  EXPECT_TRUE(user.make_folder);
  const Variable no_runtime("XDG_RUNTIME_DIR", "");
  EXPECT_EQ(ControlSocketFromEnvironment(folder / "no").path, "");
}

}  // namespace
}  // namespace cli::internal
