#include "console/tcp/access/access.h"

#include <crypt.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

#include "platform/testing/scratch_folder.h"

namespace cli::internal {
namespace {

// A quick method, so that tests under a sanitizer are quick too.
std::string Hash(const std::string& password) {
  crypt_data data{};
  return crypt_r(password.c_str(), "$5$rounds=1000$saltsalt$", &data);
}

std::string Refusal(const std::string& file) {
  try {
    ReadPasswordHash(file);
    return "none";
  } catch (const std::runtime_error& e) {
    return e.what();
  }
}

TEST(AccessTest, TheFirstLineOfTheFileIsTheHash) {
  const vextest::ScratchFolder folder;
  EXPECT_EQ(ReadPasswordHash(folder.Write("pw", Hash("secret") + "\nmore\n")), Hash("secret"));
}

TEST(AccessTest, OnlyThePasswordMatches) {
  EXPECT_TRUE(PasswordMatches("secret", Hash("secret")));
  EXPECT_FALSE(PasswordMatches("Secret", Hash("secret")));
  EXPECT_FALSE(PasswordMatches("", Hash("secret")));
  EXPECT_FALSE(PasswordMatches("secret", "no hash"));
  EXPECT_FALSE(PasswordMatches("secret", ""));
}

TEST(AccessTest, AnyRightOfTheGroupOrOfOthersIsRefused) {
  const vextest::ScratchFolder folder;
  for (const unsigned int mode : {0644U, 0640U, 0604U, 0622U, 0620U, 0602U, 0610U, 0601U}) {
    const std::string file = folder.Write("pw", Hash("secret") + "\n", static_cast<mode_t>(mode));
    std::string refusal = "password file " + file;
    refusal += " (KLBASE_CONSOLE_PASSWORD_FILE): is open to its group or to others; ";
    refusal += "take their rights away: chmod 600 " + file;
    EXPECT_EQ(Refusal(file), refusal) << std::oct << mode;
  }
  for (const unsigned int mode : {0600U, 0400U, 0700U}) {
    EXPECT_EQ(Refusal(folder.Write("pw", Hash("secret"), static_cast<mode_t>(mode))), "none") << std::oct << mode;
  }
}

TEST(AccessTest, AFileOfAnotherUserIsRefused) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can give a file away";
  const vextest::ScratchFolder folder;
  const std::string file = folder.Write("pw", Hash("secret"));
  ASSERT_EQ(::chown(file.c_str(), 4711, 0), 0);
  EXPECT_EQ(Refusal(file), "password file " + file +
                               " (KLBASE_CONSOLE_PASSWORD_FILE): belongs to user 4711, who could "
                               "change it; give it to user 0, who runs the console, or to root: chown 0 " +
                               file);
}

TEST(AccessTest, ALinkIsRefused) {
  const vextest::ScratchFolder folder;
  const std::string file = folder.Write("pw", Hash("secret"));
  const std::string link = folder / "link";
  ASSERT_EQ(::symlink(file.c_str(), link.c_str()), 0);
  EXPECT_EQ(Refusal(link),
            "password file " + link + " (KLBASE_CONSOLE_PASSWORD_FILE): is a link; name the file itself");
}

TEST(AccessTest, AFifoIsRefusedWithoutWaiting) {
  const vextest::ScratchFolder folder;
  const std::string fifo = folder / "fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_NE(Refusal(fifo).find("is not a regular file"), std::string::npos);
}

TEST(AccessTest, AMissingFileIsNamed) {
  EXPECT_EQ(Refusal("/nowhere/pw"),
            "password file /nowhere/pw (KLBASE_CONSOLE_PASSWORD_FILE): can't be opened: No such file or directory");
}

TEST(AccessTest, AFileWithoutAHashIsRefused) {
  const vextest::ScratchFolder folder;
  for (const char* text : {"", "\n", "secret\n", "$9$unknown$method\n"}) {
    EXPECT_NE(Refusal(folder.Write("pw", text)).find("holds no crypt(3) hash"), std::string::npos) << text;
  }
}

TEST(AccessTest, AFolderIsNoPasswordFile) {
  EXPECT_NE(Refusal("/tmp").find("is not a regular file"), std::string::npos);
}

}  // namespace
}  // namespace cli::internal
