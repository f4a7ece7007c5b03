#include "ctl/line_file.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "platform/testing/scratch_folder.h"

namespace vexctl {
namespace {

using testing::ElementsAre;

std::vector<std::string> All(const std::string& name) {
  LineFile file(name);
  std::vector<std::string> lines;
  while (const auto line = file.Next()) {
    lines.push_back(std::to_string(line->number) +
                    (line->error.empty() ? ": " + line->text : " error: " + line->error));
  }
  return lines;
}

TEST(LineFileTest, LinesAreNumberedAndTheOnesThatSayNothingLeftOut) {
  const vextest::ScratchFolder folder;
  EXPECT_THAT(All(folder.Write("a", "# head\n\none\r\n  \ntwo # tail\n  three")),
              ElementsAre("3: one", "5: two ", "6:   three"));
  EXPECT_THAT(All(folder.Write("b", "")), ElementsAre());
  EXPECT_THAT(All(folder.Write("c", "\n")), ElementsAre());
}

TEST(LineFileTest, ALineMayBeAsLongAsTheToolsButNotLonger) {
  const vextest::ScratchFolder folder;
  const std::string most(LineFile::kMaxLine, 'x');
  EXPECT_THAT(All(folder.Write("a", most + "\n" + most)), ElementsAre("1: " + most, "2: " + most));
  EXPECT_THAT(All(folder.Write("b", "one\n" + most + "y\ntwo\n")),
              ElementsAre("1: one", "2 error: the line is longer than 4096 bytes"));
  EXPECT_THAT(All(folder.Write("c", most + "yz")), ElementsAre("1 error: the line is longer than 4096 bytes"));
}

TEST(LineFileTest, AnEndlessLineCostsNoMemory) {
  EXPECT_THAT(All("/dev/zero"), ElementsAre("1 error: the line is longer than 4096 bytes"));
}

TEST(LineFileTest, AFileThatCannotBeReadIsExplained) {
  EXPECT_THAT(All("/no/such"), ElementsAre("0 error: can't be opened: No such file or directory"));
  EXPECT_THAT(All("/"), ElementsAre("0 error: can't be read: Is a directory"));
}

}  // namespace
}  // namespace vexctl
