#include "console/session/login.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "platform/klbase/testing/console_test.h"
#include "platform/klbase/testing/test_output.h"

namespace cli::internal {
namespace {

class LoginTest : public testing::Test {
 protected:
  LoginRules Rules() {
    LoginRules rules;
    rules.check = [this](const std::string& password) {
      checked_.push_back(password);
      return password == "right";
    };
    rules.admit = [this] {
      ++admissions_;
      return slot_free_;
    };
    rules.delay_after_failure = 1ms;
    return rules;
  }

  TestOutput output_;
  std::vector<std::string> checked_;
  int admissions_ = 0;
  bool slot_free_ = true;
};

TEST_F(LoginTest, WithoutRulesTheOperatorIsLoggedInFromTheStart) {
  const Login login(std::nullopt, {}, output_.Buffer());
  EXPECT_TRUE(login.LoggedIn());
}

TEST_F(LoginTest, TheRightPasswordLogsInWithARecord) {
  Login login(Rules(), {3, "10.0.0.1:5000"}, output_.Buffer());
  EXPECT_FALSE(login.LoggedIn());
  login.Prompt();
  const LogCapture log(30);
  EXPECT_EQ(login.Try("right"), Login::Answer::kLoggedIn);
  EXPECT_TRUE(login.LoggedIn());
  EXPECT_EQ(output_.Take(), "Password: ");
  EXPECT_EQ(log.Texts(), std::vector<std::string>{"30 console session 3 from 10.0.0.1:5000 logged in\n"});
}

TEST_F(LoginTest, AWrongPasswordIsAnsweredAndTakesNoSlot) {
  Login login(Rules(), {3, "10.0.0.1:5000"}, output_.Buffer());
  const LogCapture log(30);
  EXPECT_EQ(login.Try("wrong"), Login::Answer::kAskAgain);
  EXPECT_FALSE(login.LoggedIn());
  EXPECT_EQ(checked_, std::vector<std::string>{"wrong"});
  EXPECT_EQ(admissions_, 0);
  EXPECT_EQ(output_.Take(), "Wrong password.\n");
  EXPECT_EQ(log.Texts(), std::vector<std::string>{"40 console session 3 from 10.0.0.1:5000: wrong password\n"});
}

TEST_F(LoginTest, TheThirdWrongPasswordIsTheLast) {
  Login login(Rules(), {}, output_.Buffer());
  EXPECT_EQ(login.Try("wrong"), Login::Answer::kAskAgain);
  EXPECT_EQ(login.Try("wrong"), Login::Answer::kAskAgain);
  EXPECT_EQ(login.Try("wrong"), Login::Answer::kRefused);
  EXPECT_EQ(output_.Take(), "Wrong password.\nWrong password.\nWrong password.\n");
}

TEST_F(LoginTest, AProgramHasOneTry) {
  Login login(Rules(), {3, "10.0.0.1:5000", false}, output_.Buffer());
  EXPECT_EQ(login.Try("wrong"), Login::Answer::kRefused);
  EXPECT_EQ(output_.Take(), "Wrong password.\n");
}

TEST_F(LoginTest, WithoutAFreeSlotTheRightPasswordIsRefused) {
  slot_free_ = false;
  Login login(Rules(), {}, output_.Buffer());
  const LogCapture log(30);
  EXPECT_EQ(login.Try("right"), Login::Answer::kRefused);
  EXPECT_FALSE(login.LoggedIn());
  EXPECT_EQ(admissions_, 1);
  EXPECT_EQ(output_.Take(), "");  // the rules said it
  EXPECT_EQ(log.Count(""), 0U);
}

TEST_F(LoginTest, AWrongPasswordIsAnsweredLate) {
  LoginRules rules = Rules();
  rules.delay_after_failure = 50ms;
  Login login(rules, {}, output_.Buffer());
  const auto start = std::chrono::steady_clock::now();
  login.Try("wrong");
  EXPECT_GE(std::chrono::steady_clock::now() - start, 50ms);
}

TEST_F(LoginTest, TheDelayEndsWhenTheOperatorIsGone) {
  LoginRules rules = Rules();
  rules.delay_after_failure = 1h;
  Login login(rules, {}, output_.Buffer());
  const LogCapture log(30);
  std::thread command([&login] { login.Try("wrong"); });
  EXPECT_TRUE(log.WaitForText("40 console session 0"));
  login.Close();
  command.join();
}

}  // namespace
}  // namespace cli::internal
