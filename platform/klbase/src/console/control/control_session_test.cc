#include "console/control/control_session.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>

#include "cli/command.h"
#include "platform/klbase/testing/console_test.h"
#include "platform/klbase/testing/test_host.h"
#include "platform/klbase/testing/test_output.h"
#include "platform/testing/sync.h"

namespace cli::internal {
namespace {

// A session without a connection: the test says when its runs go on.
class ControlSessionTest : public testing::Test {
 protected:
  ControlSessionTest() {
    root_->Insert(MakeCommand(
        "step",
        [this](std::ostream&) {
          int number = 0;
          begun_.Update([&number](int& count) { number = ++count; });
          allowed_.WaitFor([number](int count) { return count >= number; });
        },
        ""));
    ControlSession::Config config;
    config.id = 1;
    config.root = root_;
    config.builtins = MakeBuiltins("main");
    config.host = &host_;
    config.transport = {output_.Shared(), [] {}, [](ControlSession::Clock::time_point, std::uint64_t) {},
                        [this] { wanted_.Notify(); }, [] {}};
    session_ = std::make_shared<ControlSession>(std::move(config));
  }
  ~ControlSessionTest() override {
    Allow(kAll);
    session_->Close();
    EXPECT_TRUE(vextest::WaitFor([this] { return session_->Thread().Done(); }));
    session_->Thread().Join();
  }

  // False when the session has enough.
  bool Step() {
    Request request;
    request.text = "step";
    return session_->OnRequest(std::move(request));
  }
  void Allow(int steps) {
    allowed_.Update([steps](int& count) { count = steps; });
  }
  bool HasBegun(int steps) {
    return begun_.WaitFor([steps](int count) { return count == steps; });
  }

  static constexpr int kAll = 1 << 20;
  const std::shared_ptr<Menu> root_ = std::make_shared<Menu>("main");
  TestHost host_;
  TestOutput output_;
  vextest::Watched<int> begun_;
  vextest::Watched<int> allowed_;
  vextest::Notification wanted_;
  std::shared_ptr<ControlSession> session_;
};

TEST_F(ControlSessionTest, InputThatIsHeldBackIsWantedAgainAlsoWhenMoreOfItCameMeanwhile) {
  EXPECT_TRUE(Step());
  ASSERT_TRUE(HasBegun(1));
  for (std::size_t waiting = 1; waiting < ControlSession::kMaxWaiting; ++waiting) ASSERT_TRUE(Step());
  EXPECT_FALSE(Step());
  Allow(2);
  ASSERT_TRUE(HasBegun(3));
  EXPECT_TRUE(Step());  // read together with those before it; there is room for it by now
  EXPECT_FALSE(wanted_.HasBeenNotified());
  Allow(kAll);
  EXPECT_TRUE(wanted_.Wait());
}

}  // namespace
}  // namespace cli::internal
