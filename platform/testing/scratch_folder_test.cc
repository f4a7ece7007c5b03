#include "platform/testing/scratch_folder.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>

#include "platform/testing/environment.h"

namespace vextest {
namespace {

TEST(ScratchFolderTest, IsGoneWithItsObjectAndEverythingInIt) {
  std::string path;
  {
    const ScratchFolder folder;
    path = folder.Path();
    folder.Write("file", "content");
    std::filesystem::create_directory(folder / "below");
    ASSERT_EQ(chmod(path.c_str(), 0500), 0);
  }
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(ScratchFolderTest, WritesAndListsFiles) {
  const ScratchFolder folder;
  const std::string two = folder.Write("two.mp4", "2");
  const std::string one = folder.Write("one.mp4", "1", 0640);
  folder.Write("three.txt", "3");
  EXPECT_THAT(folder.Files(".mp4"), testing::ElementsAre(one, two));
  EXPECT_EQ(folder.Files().size(), 3u);
  EXPECT_EQ(ReadFile(one), "1");
  EXPECT_EQ(ReadFile(folder / "none"), "");
  struct stat info = {};
  ASSERT_EQ(stat(one.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0640u);
}

TEST(ScopedVariableTest, LeavesTheVariableAsItWas) {
  const ScopedVariable outer("VEXTEST_VARIABLE", "outer");
  {
    const ScopedVariable inner("VEXTEST_VARIABLE", "inner");
    EXPECT_STREQ(getenv("VEXTEST_VARIABLE"), "inner");
    const ScopedVariable none("VEXTEST_VARIABLE", std::nullopt);
    EXPECT_EQ(getenv("VEXTEST_VARIABLE"), nullptr);
  }
  EXPECT_STREQ(getenv("VEXTEST_VARIABLE"), "outer");
}

TEST(UniqueNameTest, IsAnotherOneEachTime) { EXPECT_NE(UniqueName("name"), UniqueName("name")); }

}  // namespace
}  // namespace vextest
