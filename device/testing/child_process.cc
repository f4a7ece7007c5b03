#include "testing/child_process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

#include "testing/wait.h"

namespace device::testing {
namespace {

// Between fork and exec only calls that are safe there: everything is prepared before.
[[noreturn]] void Become(char* const* words, char* const* environment, int out) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  dup2(out, STDOUT_FILENO);
  dup2(out, STDERR_FILENO);
  execve(words[0], words, environment);
  _exit(127);
}

std::vector<char*> Pointers(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (std::string& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& words, const std::vector<std::string>& environment) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
  std::vector<std::string> arguments = words;
  // The first of two variables of one name counts.
  std::vector<std::string> variables = environment;
  for (char** variable = environ; *variable != nullptr; ++variable) variables.emplace_back(*variable);
  const auto argument_pointers = Pointers(arguments);
  const auto variable_pointers = Pointers(variables);
  pid_ = fork();
  if (pid_ == 0) Become(argument_pointers.data(), variable_pointers.data(), ends[1]);
  close(ends[1]);
  out_ = ends[0];
  fcntl(out_, F_SETFL, O_NONBLOCK);
  if (pid_ < 0) throw std::runtime_error("can't fork");
}

ChildProcess::~ChildProcess() {
  if (!status_) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  close(out_);
}

void ChildProcess::Signal(int signal) const { kill(pid_, signal); }

bool ChildProcess::WaitForOutput(const std::string& text, std::chrono::milliseconds limit) {
  const auto settled = [&] { return Output().find(text) != std::string::npos || Wait(std::chrono::milliseconds(0)); };
  WaitUntil(settled, limit);
  return Output().find(text) != std::string::npos;
}

std::optional<int> ChildProcess::Wait(std::chrono::milliseconds limit) {
  const auto ended = [&] {
    ReadOutput();  // a full pipe would stop it
    int status = 0;
    if (!status_ && waitpid(pid_, &status, WNOHANG) == pid_) {
      status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    return status_.has_value();
  };
  WaitUntil(ended, limit);
  return status_;
}

std::string ChildProcess::Output() {
  ReadOutput();
  return output_;
}

void ChildProcess::ReadOutput() {
  char bytes[4096];
  for (ssize_t n; (n = read(out_, bytes, sizeof(bytes))) > 0;) output_.append(bytes, static_cast<std::size_t>(n));
}

}  // namespace device::testing
