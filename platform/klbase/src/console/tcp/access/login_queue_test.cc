#include "console/tcp/access/login_queue.h"

#include "platform/klbase/testing/console_test.h"

namespace cli::internal {
namespace {

using Clock = std::chrono::steady_clock;
using Verdicts = std::vector<std::string>;

class LoginQueueTest : public ::testing::Test {
 protected:
  ~LoginQueueTest() override { gate_.Open(); }

  // Passwords "wait..." hold the check up until the gate opens.
  bool Check(const std::string& password) {
    checked_.Update([&password](Verdicts& checked) { checked.push_back(password); });
    if (password.starts_with("wait")) gate_.Pass();
    return password == "right";
  }
  std::shared_ptr<LoginClient> Post(const std::string& password, const std::string& address = "192.0.2.1") {
    auto client = std::make_shared<LoginClient>();
    Post(password, address, client);
    return client;
  }
  void Post(const std::string& password, const std::string& address, std::shared_ptr<LoginClient> client) {
    queue_->Post(password, address, std::move(client), [this, password](PasswordVerdict verdict) {
      const char* const texts[] = {"right", "wrong", "not checked"};
      answers_.Update([&](Verdicts& answers) { answers.push_back(password + " " + texts[static_cast<int>(verdict)]); });
    });
  }
  bool WaitForAnswers(std::size_t count) {
    return answers_.WaitFor([count](const Verdicts& answers) { return answers.size() >= count; });
  }
  // The queue's thread is at a check until the gate opens.
  void HoldUp() {
    Post("wait", "192.0.2.99");
    EXPECT_TRUE(gate_.WaitUntilReached());
  }

  Gate gate_;
  vextest::Watched<Verdicts> checked_;
  vextest::Watched<Verdicts> answers_;
  std::optional<LoginQueue> queue_{std::in_place, [this](const std::string& password) { return Check(password); }, 1ms};
};

TEST_F(LoginQueueTest, PasswordsAreCheckedAndAnswered) {
  Post("right");
  Post("wrong");
  EXPECT_TRUE(WaitForAnswers(2));
  EXPECT_EQ(answers_.Get(), (Verdicts{"right right", "wrong wrong"}));
}

TEST_F(LoginQueueTest, OneIsCheckedAtATime) {
  HoldUp();
  Post("right");
  EXPECT_EQ(checked_.Get(), Verdicts{"wait"});
  gate_.Open();
  EXPECT_TRUE(WaitForAnswers(2));
}

TEST_F(LoginQueueTest, APasswordWhoseClientIsGoneIsNotChecked) {
  HoldUp();
  const auto gone = Post("a");
  Post("right");
  gone->gone = true;
  gate_.Open();
  EXPECT_TRUE(WaitForAnswers(3));
  EXPECT_EQ(checked_.Get(), (Verdicts{"wait", "right"}));
}

TEST_F(LoginQueueTest, ClientsThatMayBeGoneComeLast) {
  HoldUp();
  Post("a")->ended = true;
  Post("right");
  gate_.Open();
  EXPECT_TRUE(WaitForAnswers(3));
  EXPECT_EQ(checked_.Get(), (Verdicts{"wait", "right", "a"}));
}

TEST_F(LoginQueueTest, AfterAWrongPasswordItsAddressWaitsLongerEachTime) {
  queue_.emplace([this](const std::string& password) { return Check(password); }, 100ms);
  const auto start = Clock::now();
  for (int i = 0; i < 4; ++i) Post("wrong");
  EXPECT_TRUE(WaitForAnswers(4));
  EXPECT_GE(Clock::now() - start, 450ms);  // 100 + 150 + 200
}

TEST_F(LoginQueueTest, FailuresOfOneAddressDelayNoOther) {
  queue_.emplace([this](const std::string& password) { return Check(password); }, 1h);
  Post("wrong", "192.0.2.1");
  Post("next", "192.0.2.1");
  Post("right", "192.0.2.2");
  EXPECT_TRUE(WaitForAnswers(2));
  EXPECT_EQ(answers_.Get(), (Verdicts{"wrong wrong", "right right"}));
}

TEST_F(LoginQueueTest, HangingUpDoesNotShortenTheWait) {
  queue_.emplace([this](const std::string& password) { return Check(password); }, 1h);
  Post("wrong");
  EXPECT_TRUE(WaitForAnswers(1));
  for (int i = 0; i < 100; ++i) Post("guess")->gone = true;
  Post("last");
  Post("right", "192.0.2.2");
  EXPECT_TRUE(WaitForAnswers(102));
  EXPECT_EQ(checked_.Get(), (Verdicts{"wrong", "right"}));
}

TEST_F(LoginQueueTest, TheEndAnswersAllThatWait) {
  queue_.emplace([this](const std::string& password) { return Check(password); }, 1h);
  Post("wrong");
  EXPECT_TRUE(WaitForAnswers(1));
  Post("a");
  queue_->Close();
  Post("b");
  EXPECT_EQ(answers_.Get(), (Verdicts{"wrong wrong", "a not checked", "b not checked"}));
}

}  // namespace
}  // namespace cli::internal
