#include "example/envctl/tool_process.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <new>

namespace {

using Deadline = std::chrono::steady_clock::time_point;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

// Between a kill and the end that it brings. A process may hang in the kernel, where no signal reaches it.
constexpr milliseconds kKillTakes{1000};
constexpr milliseconds kTick{10};  // where the kernel can't tell of an end (before Linux 5.3)

// The tools that run now, for the exit handler, which must not wait for a lock of a thread that is gone. More at once
// than there can be sessions.
constexpr std::size_t kMostTools = 256;
std::array<std::atomic<pid_t>, kMostTools> running;
constexpr pid_t kTaken = -1;  // by a tool that is about to start
std::atomic<bool> exiting{false};

void KillGroup(pid_t leader) {
  if (leader > 0) ::kill(-leader, SIGKILL);
}

// The process that started them, not a fork of it.
std::atomic<pid_t> owner{0};

void KillAll() {
  if (::getpid() != owner) return;
  exiting = true;
  for (const auto& leader : running) KillGroup(leader);
}

// One tool: the cookie of its stream. As long as its leader has not been waited for, no other group has its number.
class Tool {
 public:
  explicit Tool(Deadline deadline) : deadline_(deadline) {}
  Tool(const Tool&) = delete;
  Tool& operator=(const Tool&) = delete;
  ~Tool() {
    for (const int fd : {output_, ended_}) {
      if (fd >= 0) ::close(fd);
    }
    if (place_ != nullptr) *place_ = 0;
  }

  // 0 or an errno.
  int Start(const char* command);
  ssize_t Read(char* buffer, std::size_t size);
  // True when it ended by itself.
  bool End();

 private:
  int Spawn(const char* command, int output);
  bool WaitEnd(Deadline until) const;
  milliseconds Left(Deadline until) const {
    const auto left = std::chrono::ceil<milliseconds>(until - steady_clock::now());
    return std::max(left, milliseconds(0));
  }
  void Kill() {
    killed_ = true;
    KillGroup(leader_);
  }

  const Deadline deadline_;
  std::atomic<pid_t>* place_ = nullptr;
  pid_t leader_ = -1;
  int output_ = -1;
  int ended_ = -1;  // readable when the leader has ended; -1 where the kernel has no such thing
  bool killed_ = false;
};

int Tool::Start(const char* command) {
  // Registered late, so that it runs before the exit handler of the console, which waits for its commands.
  [[maybe_unused]] static const int registered = std::atexit(&KillAll);
  owner = ::getpid();
  for (auto& place : running) {
    pid_t none = 0;
    if (place.compare_exchange_strong(none, kTaken)) {
      place_ = &place;
      break;
    }
  }
  if (place_ == nullptr) return EAGAIN;
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) return errno;
  output_ = ends[0];
  const int error = exiting ? ECANCELED : Spawn(command, ends[1]);
  ::close(ends[1]);
  if (error != 0) return error;
  *place_ = leader_;
  ended_ = static_cast<int>(::syscall(SYS_pidfd_open, leader_, 0));
  if (exiting) Kill();  // the exit handler may have looked before
  return 0;
}

int Tool::Spawn(const char* command, int output) {
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;
  posix_spawn_file_actions_init(&actions);
  posix_spawnattr_init(&attributes);
  posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
  posix_spawnattr_setpgroup(&attributes, 0);
  const std::array<const char*, 4> words = {"sh", "-c", command, nullptr};
  const int error =
      ::posix_spawn(&leader_, "/bin/sh", &actions, &attributes, const_cast<char* const*>(words.data()), environ);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  return error;
}

ssize_t Tool::Read(char* buffer, std::size_t size) {
  while (true) {
    pollfd readable{output_, POLLIN, 0};
    const int ready = ::poll(&readable, 1, static_cast<int>(Left(deadline_).count()));
    if (ready < 0 && errno == EINTR) continue;
    if (ready == 0) {
      Kill();
      errno = ETIMEDOUT;
    }
    return ready <= 0 ? -1 : ::read(output_, buffer, size);
  }
}

// The leader stays a zombie, whose number is nobody else's.
bool Tool::WaitEnd(Deadline until) const {
  while (true) {
    siginfo_t info{};
    const int looked = ::waitid(P_PID, static_cast<id_t>(leader_), &info, WEXITED | WNOHANG | WNOWAIT);
    if ((looked == 0 && info.si_pid == leader_) || (looked != 0 && errno == ECHILD)) return true;
    const milliseconds left = Left(until);
    if (left.count() == 0) return false;
    pollfd end{ended_, POLLIN, 0};
    ::poll(&end, 1, static_cast<int>(ended_ >= 0 ? left.count() : std::min(left, kTick).count()));
  }
}

bool Tool::End() {
  ::close(output_);  // a tool that still prints ends by that, as with pclose
  output_ = -1;
  bool ended = WaitEnd(deadline_);
  if (!ended) {
    Kill();
    ended = WaitEnd(steady_clock::now() + kKillTakes);
  }
  if (!ended) {
    place_ = nullptr;  // it hangs in the kernel: left to the exit handler
    return false;
  }
  *place_ = 0;  // before its number is free for others
  place_ = nullptr;
  ::waitpid(leader_, nullptr, 0);
  return !killed_ && !exiting;
}

ssize_t ReadTool(void* tool, char* buffer, std::size_t size) { return static_cast<Tool*>(tool)->Read(buffer, size); }

// fclose() says only whether it worked, so the answer comes through this thread's own variable.
thread_local bool ended_by_itself = false;

int EndTool(void* tool) {
  const std::unique_ptr<Tool> owned(static_cast<Tool*>(tool));
  ended_by_itself = owned->End();
  return 0;
}

}  // namespace

extern "C" {

FILE* OpenSettingsTool(const char* command, std::int64_t limit_ms) {
  std::unique_ptr<Tool> tool(new (std::nothrow) Tool(steady_clock::now() + milliseconds(limit_ms)));
  if (const int error = tool ? tool->Start(command) : ENOMEM; error != 0) {
    errno = error;
    return nullptr;
  }
  FILE* const stream = ::fopencookie(tool.get(), "r", {&ReadTool, nullptr, nullptr, &EndTool});
  if (stream == nullptr) {
    EndTool(tool.release());
    errno = ENOMEM;
    return nullptr;
  }
  (void)tool.release();  // the stream's now
  return stream;
}

bool CloseSettingsTool(FILE* stream) {
  std::fclose(stream);
  return ended_by_itself;
}

}  // extern "C"
