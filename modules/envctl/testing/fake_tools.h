// The device's settings tools, played by the test.
#ifndef MODULES_ENVCTL_TESTING_FAKE_TOOLS_H_
#define MODULES_ENVCTL_TESTING_FAKE_TOOLS_H_

#include <gtest/gtest.h>

#include <deque>
#include <string>
#include <vector>

namespace envctl::testing {

// An answer of a tool that can't be started.
inline constexpr char kNoStart[] = "(cannot be started)";

// For a test program that is linked with --wrap=popen: its calls of popen come here. The command is looked at, and the
// tool's answer comes from a real child process.
class FakeTools : public ::testing::Test {
 protected:
  FakeTools();

  // The tool's output for each of its runs, in the notation of printf(1); the last one stays.
  static void Answers(const std::deque<std::string>& texts);
  static std::vector<std::string> Commands();
};

}  // namespace envctl::testing

#endif  // MODULES_ENVCTL_TESTING_FAKE_TOOLS_H_
