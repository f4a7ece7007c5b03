#include "console/commands/builtins.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <string>

#include "console/session/console_session.h"
#include "platform/klbase/testing/test_host.h"
#include "platform/testing/sync.h"

namespace cli::internal {
namespace {

// Runs `lines` in a session of its own and returns its output.
class BuiltinsTest : public testing::Test, private TestHost {
 protected:
  std::string Run(std::string_view lines) {
    int ends[2];
    EXPECT_EQ(::pipe(ends), 0);
    std::atomic<bool> ended = false;
    SessionConfig config;
    config.kind = SessionKind::kProgram;
    config.root = std::make_shared<Menu>("main");
    config.builtins = MakeBuiltins("main");
    config.host = this;
    config.output = std::make_shared<OutputBuffer>(ends[1], OutputBuffer::Target::kFile, nullptr);
    config.want_input = [] {};
    config.ended = [&ended] { ended = true; };
    const auto session = std::make_shared<ConsoleSession>(std::move(config));
    session->Start(LineEditor::Display::kNone);
    session->OnInput(lines);
    session->OnEndOfInput();
    EXPECT_TRUE(vextest::WaitFor([&ended] { return ended.load(); }));
    EXPECT_TRUE(session->Output()->Flush());
    session->Close();
    EXPECT_TRUE(vextest::WaitFor([&session] { return session->Thread().Done(); }));
    session->Thread().Join();
    char printed[4096];
    const ssize_t size = ::read(ends[0], printed, sizeof printed);
    ::close(ends[0]);
    ::close(ends[1]);
    return {printed, size > 0 ? static_cast<std::size_t>(size) : 0};
  }
};

TEST_F(BuiltinsTest, HistoryWritesOutWhatNoTerminalShouldGet) {
  EXPECT_THAT(Run("\xc2\x9b"
                  "2J \xe4 gr\xc3\xb6\xc3\x9f\x65\nhistory\n"),
              testing::EndsWith("    1  \\u009b2J \\xe4 gr\xc3\xb6\xc3\x9f\x65\n    2  history\n"));
}

}  // namespace
}  // namespace cli::internal
