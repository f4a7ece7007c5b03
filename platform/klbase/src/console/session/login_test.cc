#include "console/session/login.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/klbase/testing/console_test.h"
#include "platform/klbase/testing/test_output.h"

namespace cli::internal {
namespace {

class LoginTest : public testing::Test {
 protected:
  LoginRules Rules() {
    LoginRules rules;
    rules.check = [this](const std::string& password, const auto& answer) {
      checked_.push_back(password);
      answer(password == "right" ? PasswordVerdict::kRight : PasswordVerdict::kWrong);
    };
    rules.admit = [this] {
      ++admissions_;
      return slot_free_;
    };
    return rules;
  }
  static Login::Answer Try(Login& login, const std::string& password) {
    auto answer = Login::Answer::kRefused;
    login.Check(password, [&](PasswordVerdict verdict) { answer = login.Take(verdict); });
    return answer;
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
  EXPECT_EQ(Try(login, "right"), Login::Answer::kLoggedIn);
  EXPECT_TRUE(login.LoggedIn());
  EXPECT_EQ(output_.Take(), "Password: ");
  EXPECT_EQ(log.Texts(), std::vector<std::string>{"30 console session 3 from 10.0.0.1:5000 logged in\n"});
}

TEST_F(LoginTest, AWrongPasswordIsAnsweredAndTakesNoSlot) {
  Login login(Rules(), {3, "10.0.0.1:5000"}, output_.Buffer());
  const LogCapture log(30);
  EXPECT_EQ(Try(login, "wrong"), Login::Answer::kAskAgain);
  EXPECT_FALSE(login.LoggedIn());
  EXPECT_EQ(checked_, std::vector<std::string>{"wrong"});
  EXPECT_EQ(admissions_, 0);
  EXPECT_EQ(output_.Take(), "Wrong password.\n");
  EXPECT_EQ(log.Texts(), std::vector<std::string>{"40 console session 3 from 10.0.0.1:5000: wrong password\n"});
}

TEST_F(LoginTest, TheThirdWrongPasswordIsTheLast) {
  Login login(Rules(), {}, output_.Buffer());
  EXPECT_EQ(Try(login, "wrong"), Login::Answer::kAskAgain);
  EXPECT_EQ(Try(login, "wrong"), Login::Answer::kAskAgain);
  EXPECT_EQ(Try(login, "wrong"), Login::Answer::kRefused);
  EXPECT_EQ(output_.Take(), "Wrong password.\nWrong password.\nWrong password.\n");
}

TEST_F(LoginTest, AProgramHasOneTry) {
  Login login(Rules(), {3, "10.0.0.1:5000", false}, output_.Buffer());
  EXPECT_EQ(Try(login, "wrong"), Login::Answer::kRefused);
  EXPECT_EQ(output_.Take(), "Wrong password.\n");
}

TEST_F(LoginTest, WithoutAFreeSlotTheRightPasswordIsRefused) {
  slot_free_ = false;
  Login login(Rules(), {}, output_.Buffer());
  const LogCapture log(30);
  EXPECT_EQ(Try(login, "right"), Login::Answer::kRefused);
  EXPECT_FALSE(login.LoggedIn());
  EXPECT_EQ(admissions_, 1);
  EXPECT_EQ(output_.Take(), "");  // the rules said it
  EXPECT_EQ(log.Count(""), 0U);
}

TEST_F(LoginTest, APasswordThatWasNotCheckedIsRefusedWithoutARecord) {
  Login login(Rules(), {}, output_.Buffer());
  const LogCapture log(30);
  EXPECT_EQ(login.Take(PasswordVerdict::kNotChecked), Login::Answer::kRefused);
  EXPECT_FALSE(login.LoggedIn());
  EXPECT_EQ(output_.Take(), "");
  EXPECT_EQ(log.Count(""), 0U);
}

}  // namespace
}  // namespace cli::internal
