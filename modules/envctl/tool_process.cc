#include "tool_process.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <new>
#include <set>
#include <string>
#include <string_view>
#include <thread>

#include "absl/synchronization/mutex.h"

namespace {

using Deadline = std::chrono::steady_clock::time_point;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

// Between a kill and the end that it brings. A process may hang in the kernel, where no signal reaches it.
constexpr milliseconds kKillTakes{1000};
constexpr milliseconds kTick{10};  // between two looks at what is left

// popen tells no process number and makes no group. So all that comes of a command inherits the write end of a pipe,
// its mark, which nothing else has; who has it is in /proc. The read end stays with us: it keeps the mark's number from
// being given to another pipe, and it tells when the last process is gone.
using Mark = ino_t;
constexpr Mark kNoMark = 0;
constexpr Mark kTaken = static_cast<Mark>(-1);  // by a tool that has none yet

// The tools that run now, for the exit handler, which must not wait for a lock of a thread that is gone. More at once
// than there can be sessions.
constexpr std::size_t kMostTools = 256;
std::array<std::atomic<Mark>, kMostTools> running;
std::atomic<int> starting{0};  // threads that may start one without having seen `exiting`
std::atomic<bool> exiting{false};
std::atomic<pid_t> owner{0};  // the process that started them, not a fork of it

// Held while a command is started, so that it inherits no other one's mark.
ABSL_CONST_INIT absl::Mutex start_mutex(absl::kConstInit);

// The numbers that a folder of /proc has for entries.
template <typename Visit>
void ForEachNumber(const std::string& folder, Visit visit) {
  const std::unique_ptr<DIR, int (*)(DIR*)> entries(::opendir(folder.c_str()), &::closedir);
  if (entries == nullptr) return;  // the process has ended
  while (const dirent* const entry = ::readdir(entries.get())) {
    if (std::isdigit(static_cast<unsigned char>(entry->d_name[0])) != 0) visit(entry->d_name);
  }
}

bool HasMark(const std::string& process, Mark mark) {
  const std::string folder = "/proc/" + process + "/fd";
  const std::string wanted = "pipe:[" + std::to_string(mark) + "]";
  bool found = false;
  ForEachNumber(folder, [&](const char* descriptor) {
    const std::string link = folder + "/" + descriptor;
    char target[64];
    const ssize_t size = ::readlink(link.c_str(), target, sizeof target);
    struct stat ends {};
    // The link of a write end can be written.
    found = found || (size > 0 && wanted == std::string_view(target, static_cast<std::size_t>(size)) &&
                      ::lstat(link.c_str(), &ends) == 0 && (ends.st_mode & S_IWUSR) != 0);
  });
  return found;
}

// Whether there was anything to kill.
bool KillMarked(Mark mark) {
  const pid_t own = ::getpid();
  bool found = false;
  ForEachNumber("/proc", [&](const char* process) {
    const pid_t pid = std::atoi(process);
    if (pid == own || !HasMark(process, mark)) return;
    found = true;
    ::kill(pid, SIGKILL);
  });
  return found;
}

// A process that was being started while the others were looked at is found the next time, also when the thread that
// waited for its tool has seen that end.
void KillAll() {
  if (::getpid() != owner) return;
  exiting = true;
  const Deadline until = steady_clock::now() + kKillTakes;
  std::set<Mark> marks;
  bool again = true;
  while (again && steady_clock::now() < until) {
    again = starting > 0;
    for (const auto& place : running) marks.insert(place);
    for (const Mark mark : marks) {
      if (mark != kNoMark && mark != kTaken && KillMarked(mark)) again = true;
    }
    if (again) std::this_thread::sleep_for(kTick);
  }
}

// One tool: the cookie of its stream.
class Tool {
 public:
  Tool(Deadline deadline, int stop) : deadline_(deadline), stop_(stop) {}
  Tool(const Tool&) = delete;
  Tool& operator=(const Tool&) = delete;
  ~Tool() {
    for (const int fd : {alive_, ended_}) {
      if (fd >= 0) ::close(fd);
    }
    if (place_ != nullptr) *place_ = kNoMark;
  }

  // 0 or an errno.
  int Start(const char* command);
  ssize_t Read(char* buffer, std::size_t size);
  // True when it ended by itself.
  bool End();

 private:
  int StartMarked(const char* command, int mark);
  bool WaitEnd(Deadline until, int stop) const;
  void Kill();
  static int Left(Deadline until) {
    const auto left = std::chrono::ceil<milliseconds>(until - steady_clock::now());
    return static_cast<int>(std::max(left, milliseconds(0)).count());
  }

  const Deadline deadline_;
  const int stop_;  // readable when it is to be given up; -1 for none
  std::atomic<Mark>* place_ = nullptr;
  Mark mark_ = kNoMark;
  FILE* pipe_ = nullptr;
  pid_t shell_ = 0;  // popen's child; 0 where the kernel doesn't tell
  int ended_ = -1;   // readable when the shell has ended; -1 where the kernel has no such thing (before Linux 5.3)
  int alive_ = -1;   // the mark's read end
  bool killed_ = false;
};

// The children that the calling thread has started. Empty where the kernel was built without the list.
std::set<pid_t> ChildrenOfThread() {
  std::ifstream list("/proc/thread-self/children");
  return {std::istream_iterator<pid_t>(list), std::istream_iterator<pid_t>()};
}

int Tool::Start(const char* command) {
  // Registered late, so that it runs before the exit handler of the console, which waits for its commands.
  [[maybe_unused]] static const int registered = std::atexit(&KillAll);
  owner = ::getpid();
  for (auto& place : running) {
    Mark none = kNoMark;
    if (place.compare_exchange_strong(none, kTaken)) {
      place_ = &place;
      break;
    }
  }
  if (place_ == nullptr) return EAGAIN;
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) return errno;
  alive_ = ends[0];
  ++starting;
  const int error = exiting ? ECANCELED : StartMarked(command, ends[1]);
  --starting;
  ::close(ends[1]);
  return error;
}

int Tool::StartMarked(const char* command, int mark) {
  struct stat pipe {};
  if (::fstat(mark, &pipe) != 0) return errno;
  mark_ = pipe.st_ino;
  *place_ = mark_;
  absl::MutexLock lock(&start_mutex);
  const std::set<pid_t> before = ChildrenOfThread();
  ::fcntl(mark, F_SETFD, 0);
  pipe_ = ::popen(command, "r");
  const int error = errno;
  ::fcntl(mark, F_SETFD, FD_CLOEXEC);
  if (pipe_ == nullptr) return error != 0 ? error : EAGAIN;
  ::fcntl(::fileno(pipe_), F_SETFD, FD_CLOEXEC);
  for (const pid_t child : ChildrenOfThread()) {
    if (before.count(child) == 0) shell_ = child;
  }
  if (shell_ != 0) ended_ = static_cast<int>(::syscall(SYS_pidfd_open, shell_, 0));
  return 0;
}

void Tool::Kill() {
  killed_ = true;
  const Deadline until = steady_clock::now() + kKillTakes;
  pollfd gone{alive_, 0, 0};  // POLLHUP comes without being asked for
  do {
    KillMarked(mark_);
  } while (::poll(&gone, 1, static_cast<int>(kTick.count())) != 1 && steady_clock::now() < until);
}

ssize_t Tool::Read(char* buffer, std::size_t size) {
  const int output = ::fileno(pipe_);
  while (true) {
    pollfd ready[] = {{output, POLLIN, 0}, {stop_, POLLIN, 0}};
    const int count = ::poll(ready, 2, Left(deadline_));
    if (count < 0 && errno == EINTR) continue;
    const bool stopped = count > 0 && ready[1].revents != 0;
    if (count == 0 || stopped) {
      Kill();
      errno = stopped ? ECANCELED : ETIMEDOUT;
      return -1;
    }
    return count < 0 ? -1 : ::read(output, buffer, size);
  }
}

// Whether popen's child has ended, before `until` and, if it is not -1, before `stop` is readable. It stays a zombie,
// for pclose to find.
bool Tool::WaitEnd(Deadline until, int stop) const {
  pollfd ends[] = {{ended_, POLLIN, 0}, {stop, POLLIN, 0}};
  while (true) {
    siginfo_t info{};
    const int looked = ::waitid(P_PID, static_cast<id_t>(shell_), &info, WEXITED | WNOHANG | WNOWAIT);
    if ((looked == 0 && info.si_pid == shell_) || (looked != 0 && errno == ECHILD)) return true;
    const int left = Left(until);
    if (left == 0 || ends[1].revents != 0) return false;
    ::poll(ends, 2, ended_ >= 0 ? left : std::min<int>(left, kTick.count()));
  }
}

bool Tool::End() {
  // A tool that still prints must end by that, as with pclose: a stream in the place of its output would hold it.
  const int nowhere = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (nowhere >= 0) {
    ::dup3(nowhere, ::fileno(pipe_), O_CLOEXEC);
    ::close(nowhere);
  }
  bool ended = shell_ == 0 || WaitEnd(deadline_, stop_);
  if (!ended) {
    Kill();
    ended = WaitEnd(steady_clock::now() + kKillTakes, -1);
  }
  if (!ended) {
    place_ = nullptr;  // it hangs in the kernel: left to the exit handler, with its mark
    alive_ = -1;
    return false;
  }
  ::pclose(pipe_);
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

FILE* OpenSettingsTool(const char* command, std::int64_t limit_ms, int stop_fd) {
  std::unique_ptr<Tool> tool(new (std::nothrow) Tool(steady_clock::now() + milliseconds(limit_ms), stop_fd));
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
