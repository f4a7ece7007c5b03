#include "console/tcp/access/password_checker.h"

#include <crypt.h>

#include "platform/klbase/testing/console_test.h"

namespace cli::internal {
namespace {

// A quick method, so that tests under a sanitizer are quick too.
std::string Hash(const std::string& password) {
  crypt_data data{};
  return crypt_r(password.c_str(), "$5$rounds=1000$saltsalt$", &data);
}

TEST(PasswordCheckerTest, OnlyThePasswordOfTheFileIsRight) {
  const ScratchFolder folder;
  PasswordChecker checker(folder.Write("pw", Hash("secret")));
  EXPECT_TRUE(checker.Check("secret"));
  EXPECT_FALSE(checker.Check("wrong"));
  EXPECT_FALSE(checker.Check(""));
}

TEST(PasswordCheckerTest, ANewPasswordCountsAtOnce) {
  const ScratchFolder folder;
  PasswordChecker checker(folder.Write("pw", Hash("secret")));
  folder.Write("pw", Hash("newer"));
  EXPECT_FALSE(checker.Check("secret"));
  EXPECT_TRUE(checker.Check("newer"));
}

TEST(PasswordCheckerTest, AUselessFileIsRefusedAtTheStart) {
  try {
    const PasswordChecker checker("/nowhere/pw");
    FAIL() << "not refused";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(
        e.what(),
        "password file /nowhere/pw (KLBASE_CONSOLE_PASSWORD_FILE): can't be opened: No such file or directory");
  }
}

TEST(PasswordCheckerTest, AFileThatBecameUselessLetsNobodyInAndLeavesARecord) {
  const ScratchFolder folder;
  const std::string file = folder.Write("pw", Hash("secret"));
  PasswordChecker checker(file);
  folder.Write("pw", Hash("secret"), 0644);
  const LogCapture log(30);
  EXPECT_FALSE(checker.Check("secret"));
  EXPECT_EQ(
      log.Count(
          "50 console: password file " + file +
          " (KLBASE_CONSOLE_PASSWORD_FILE): is open to its group or to others; take their rights away: chmod 600 " +
          file),
      1U);
}

TEST(PasswordCheckerTest, AStrangerWhoTriesAgainAndAgainWritesOneRecordForEachCause) {
  const ScratchFolder folder;
  const std::string file = folder.Write("pw", Hash("secret"));
  const LogCapture log(30);
  {
    PasswordChecker checker(file);
    for (int round = 0; round < 2; ++round) {
      folder.Write("pw", Hash("secret"), 0644);
      for (int i = 0; i < 100; ++i) EXPECT_FALSE(checker.Check("guess"));
      folder.Write("pw", "clear text", 0600);
      for (int i = 0; i < 10; ++i) EXPECT_FALSE(checker.Check("guess"));
    }
    EXPECT_TRUE(checker.TellFailures());
    EXPECT_EQ(log.Count("50 "), 2U) << ::testing::PrintToString(log.Texts());
  }
  EXPECT_EQ(log.Count("50 199 more in the last minute: console passwords that could not be checked"), 1U);
  EXPECT_EQ(log.Count("50 19 more in the last minute: console passwords that could not be checked"), 1U);
}

}  // namespace
}  // namespace cli::internal
