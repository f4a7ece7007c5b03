#include "modules/envctl/testing/fake_tools.h"

#include <cerrno>
#include <cstdio>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"

namespace envctl::testing {
namespace {

absl::Mutex mutex(absl::kConstInit);
std::vector<std::string> commands ABSL_GUARDED_BY(mutex);
std::deque<std::string> answers ABSL_GUARDED_BY(mutex);

std::string NextAnswer(const char* command) {
  absl::MutexLock lock(&mutex);
  commands.emplace_back(command);
  if (answers.empty()) return "";
  std::string answer = answers.front();
  if (answers.size() > 1) answers.pop_front();
  return answer;
}

}  // namespace

FakeTools::FakeTools() {
  absl::MutexLock lock(&mutex);
  answers.clear();
  commands.clear();
}

void FakeTools::Answers(const std::deque<std::string>& texts) {
  absl::MutexLock lock(&mutex);
  answers = texts;
}

std::vector<std::string> FakeTools::Commands() {
  absl::MutexLock lock(&mutex);
  return commands;
}

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's own names
extern "C" {

FILE* __real_popen(const char* command, const char* mode);

FILE* __wrap_popen(const char* command, const char* mode) {
  EXPECT_STREQ(mode, "r");
  const std::string answer = NextAnswer(command);
  if (answer == kNoStart) {
    errno = EAGAIN;
    return nullptr;
  }
  return __real_popen(("printf '%b' '" + answer + "'").c_str(), mode);
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)

}  // namespace envctl::testing
