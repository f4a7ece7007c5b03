#include "console/metrics/metrics_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "klbase/metrics.h"
#include "platform/testing/log_capture.h"
#include "platform/testing/scratch_folder.h"
#include "platform/testing/sync.h"

namespace cli::internal {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using vextest::LogCapture;
using vextest::ReadFile;
using vextest::ScratchFolder;
using vextest::WaitFor;

class MetricsFileTest : public testing::Test {
 protected:
  bool Has(const std::string& text) const {
    return std::filesystem::exists(path_) && ReadFile(path_).find(text) != std::string::npos;
  }
  static klbase::Counter Lines() { return klbase::Counters("test_file_total", "In the file.").With(); }

  const ScratchFolder folder_;
  const std::string path_ = folder_ / "vextool.prom";
};

TEST_F(MetricsFileTest, TheFileIsThereAtOnceAndAnewAfterEachPeriod) {
  const MetricsFile file(path_, 20ms);
  EXPECT_TRUE(WaitFor([this] { return Has("vextool_build_info"); }));
  Lines().Add(1000);
  EXPECT_TRUE(WaitFor([this] { return Has("\ntest_file_total 1000\n"); }));
}

TEST_F(MetricsFileTest, AtTheEndItIsWrittenOnceMore) {
  {
    const MetricsFile file(path_, 1h);
    EXPECT_TRUE(WaitFor([this] { return Has("vextool_build_info"); }));
    klbase::Counters("test_file_end_total", "At the end.").With().Add(7);
  }
  EXPECT_THAT(ReadFile(path_), HasSubstr("\ntest_file_end_total 7\n"));
}

TEST_F(MetricsFileTest, AllMayReadItAndNothingElseIsLeft) {
  const mode_t before = ::umask(077);
  { const MetricsFile file(path_, 1h); }
  ::umask(before);
  struct stat info {};
  ASSERT_EQ(::stat(path_.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0644U);
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(folder_.Path()))
    names.push_back(entry.path().filename());
  EXPECT_THAT(names, ElementsAre("vextool.prom"));
}

TEST_F(MetricsFileTest, AReaderNeverFindsHalfAFile) {
  const MetricsFile file(path_, 1ms);
  ASSERT_TRUE(WaitFor([this] { return std::filesystem::exists(path_); }));
  for (int i = 0; i < 500; ++i) {
    const std::string text = ReadFile(path_);
    ASSERT_TRUE(text.ends_with("\n") && text.find("vextool_build_info{") != std::string::npos) << text;
  }
}

TEST_F(MetricsFileTest, AFileThatCanNotBeWrittenIsSaidOnceUntilItCan) {
  const std::string missing = folder_ / "missing";
  const std::string path = missing + "/vextool.prom";
  const LogCapture log(30);
  const MetricsFile file(path, 5ms);
  const std::string failed = "40 the metrics file " + path +
                             " cannot be written: No such file or directory (KLBASE_METRICS_FILE names another one)\n";
  ASSERT_TRUE(log.WaitForText(failed));
  ASSERT_EQ(::mkdir(missing.c_str(), 0755), 0);
  ASSERT_TRUE(log.WaitForText("30 the metrics file " + path + " is written again\n"));
  EXPECT_EQ(log.Count("40 "), 1U);
  EXPECT_TRUE(std::filesystem::exists(path));
}

TEST_F(MetricsFileTest, AFolderOfThatNameStaysAsItIs) {
  ASSERT_EQ(::mkdir(path_.c_str(), 0755), 0);
  const LogCapture log(30);
  { const MetricsFile file(path_, 1h); }
  EXPECT_EQ(log.Count("40 the metrics file " + path_ + " cannot be written: Is a directory"), 1U);
  EXPECT_TRUE(std::filesystem::is_directory(path_));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder_.Path()), {}), 1);
}

}  // namespace
}  // namespace cli::internal
