#include "console/tcp/access/access.h"

#include <crypt.h>
#include <gtest/gtest.h>

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

TEST(AccessTest, AFileThatOthersMayReadIsRefused) {
  const vextest::ScratchFolder folder;
  const std::string file = folder.Write("pw", Hash("secret") + "\n", 0644);
  EXPECT_EQ(Refusal(file),
            "password file " + file + " (KLBASE_CONSOLE_PASSWORD_FILE): may be read by others; set its mode to 0600");
  EXPECT_NE(Refusal(folder.Write("group", Hash("secret"), 0640)).find("set its mode to 0600"), std::string::npos);
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
