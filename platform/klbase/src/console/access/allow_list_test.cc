#include "console/access/allow_list.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <stdexcept>

#include "gtest/gtest.h"

namespace cli::internal {
namespace {

constexpr uid_t kStranger = 54321;

TEST(AllowListTest, OwnUserAndRootMayAndNobodyElse) {
  AllowList list("");
  EXPECT_TRUE(list.Allows(0));
  EXPECT_TRUE(list.Allows(::geteuid()));
  EXPECT_FALSE(list.Allows(kStranger));
  EXPECT_FALSE(list.Any());
}

TEST(AllowListTest, ListedUsersMay) {
  AllowList list("12345, 54321 ,");
  EXPECT_TRUE(list.Allows(12345));
  EXPECT_TRUE(list.Allows(kStranger));
  EXPECT_FALSE(list.Allows(54322));
}

TEST(AllowListTest, MembersOfAGroupMay) {
  const passwd* nobody = ::getpwnam("nobody");
  ASSERT_NE(nobody, nullptr);
  const uid_t user = nobody->pw_uid;
  const group* own = ::getgrgid(nobody->pw_gid);
  ASSERT_NE(own, nullptr);
  AllowList list("@no-such-group,@" + std::string(own->gr_name));
  EXPECT_TRUE(list.Allows(user));
  EXPECT_TRUE(list.Allows(user));  // from memory
  EXPECT_FALSE(list.Allows(kStranger));
  AllowList other("@no-such-group");
  EXPECT_FALSE(other.Allows(user));
}

TEST(AllowListTest, AnyLetsEverybodyIn) {
  AllowList list("any");
  EXPECT_TRUE(list.Any());
  EXPECT_TRUE(list.Allows(kStranger));
}

TEST(AllowListTest, AnEntryThatIsNeitherIsRefused) {
  for (const char* text : {"root", "-1", "12x", "@", "99999999999", "any,nobody"}) {
    try {
      const AllowList list(text);
      ADD_FAILURE() << text << " was taken";
    } catch (const std::runtime_error& e) {
      EXPECT_NE(std::string(e.what()).find("KLBASE_CONSOLE_ALLOW has \""), std::string::npos) << e.what();
    }
  }
}

}  // namespace
}  // namespace cli::internal
