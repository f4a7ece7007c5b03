#include "console/session/console_session.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "platform/klbase/testing/test_host.h"
#include "platform/klbase/testing/test_output.h"
#include "platform/testing/sync.h"

namespace cli::internal {
namespace {

// A program's session whose command "print N" prints so many bytes.
class ConsoleSessionTest : public testing::Test {
 protected:
  ConsoleSessionTest() {
    auto menu = std::make_unique<Menu>("main");
    menu->Insert(MakeCommand(
        "print",
        [this](std::ostream& out, int bytes) {
          out << std::string(static_cast<std::size_t>(bytes), '.');
          ++printed_;
        },
        ""));
    SessionConfig config;
    config.kind = SessionKind::kProgram;
    config.root = std::move(menu);
    config.builtins = MakeBuiltins("main");
    config.host = &host_;
    config.output = output_.Shared();
    config.want_input = [] {};
    config.ended = [] {};
    session_ = std::make_shared<ConsoleSession>(std::move(config));
    session_->Start(LineEditor::Display::kNone);
  }
  ~ConsoleSessionTest() override {
    output_.Buffer()->Close();
    session_->Close();
    EXPECT_TRUE(vextest::WaitFor([this] { return session_->Thread().Done(); }));
    session_->Thread().Join();
  }

  void Send(std::string_view line, int times) {
    std::string lines;
    for (int i = 0; i < times; ++i) lines.append(line).append("\n");
    session_->OnInput(lines);
  }
  bool WaitUntilPrinted(int times) {
    return vextest::WaitFor([&] { return printed_ == times; });
  }

  TestHost host_;
  TestOutput output_;
  std::atomic<int> printed_{0};
  std::shared_ptr<ConsoleSession> session_;
};

TEST_F(ConsoleSessionTest, ALineRunsAtOnceAndThoseBehindItTakeTurns) {
  auto one = std::make_unique<LineTurns::Turn>(host_.Turns());
  const LineTurns::Turn other(host_.Turns());
  Send("print 1", 3);
  ASSERT_TRUE(WaitUntilPrinted(1));
  Send("print 1", 1);
  EXPECT_FALSE(vextest::WaitFor([this] { return printed_ > 1; }, std::chrono::milliseconds(50)));
  one.reset();
  EXPECT_TRUE(WaitUntilPrinted(4));
}

TEST_F(ConsoleSessionTest, NoFurtherLineRunsForAReaderThatTakesNothing) {
  constexpr int kBytes = 16 << 10;
  constexpr int kLines = 100;
  const int most = static_cast<int>(OutputBuffer::kBusyPending) / kBytes;
  Send("print " + std::to_string(kBytes), kLines);
  ASSERT_TRUE(vextest::WaitFor([&] { return output_.Buffer()->Pending() > OutputBuffer::kBusyPending; }));
  EXPECT_FALSE(vextest::WaitFor([&] { return output_.Buffer()->Pending() > OutputBuffer::kBusyPending + kBytes; },
                                std::chrono::milliseconds(50)));
  EXPECT_GT(printed_, most);
  EXPECT_LT(printed_, kLines);
  EXPECT_TRUE(output_.Read(std::size_t{kLines} * kBytes));
  EXPECT_TRUE(WaitUntilPrinted(kLines));
}

}  // namespace
}  // namespace cli::internal
