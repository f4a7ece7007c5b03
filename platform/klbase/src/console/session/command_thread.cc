#include "console/session/command_thread.h"

#include <signal.h>

#include <system_error>
#include <utility>

#include "klbase/log.h"

namespace cli::internal {
namespace {

// The interrupt signal must never be handled on a thread that may hold a lock of ours.
class SigintBlocked {
 public:
  SigintBlocked() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    pthread_sigmask(SIG_BLOCK, &set, &before_);
  }
  ~SigintBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  SigintBlocked(const SigintBlocked&) = delete;
  SigintBlocked& operator=(const SigintBlocked&) = delete;

 private:
  sigset_t before_;
};

}  // namespace

bool CommandThread::Post(std::string line, std::shared_ptr<Host> host) {
  absl::MutexLock lock(&mutex_);
  if (!started_ && !StartLocked(std::move(host))) return false;
  line_ = std::move(line);
  posted_or_closed_.Signal();
  return true;
}

bool CommandThread::StartLocked(std::shared_ptr<Host> host) {
  const SigintBlocked blocked;  // the new thread inherits it
  try {
    thread_ = std::thread([this, host = std::move(host)] { Main(*host); });
  } catch (const std::system_error& e) {
    KL_LOG(50, "console session %d: no thread for its commands: %s\n", session_id_, e.what());
    return false;
  }
  thread_id_ = thread_.get_id();
  started_ = true;
  return true;
}

void CommandThread::Main(Host& host) {
  while (auto line = WaitForLine()) host.RunLines(std::move(*line));
  {
    absl::MutexLock lock(&mutex_);
    ended_ = true;  // before the host is told: that has the session reaped, which asks Done() first
  }
  host.ThreadEnded();
}

std::optional<std::string> CommandThread::WaitForLine() {
  absl::MutexLock lock(&mutex_);
  while (!line_ && !closed_) posted_or_closed_.Wait(&mutex_);
  if (closed_) return std::nullopt;
  return std::exchange(line_, std::nullopt);
}

void CommandThread::Close() {
  absl::MutexLock lock(&mutex_);
  closed_ = true;
  posted_or_closed_.Signal();
}

bool CommandThread::Running() const {
  absl::MutexLock lock(&mutex_);
  return started_ && !ended_;
}

bool CommandThread::Done() const {
  absl::MutexLock lock(&mutex_);
  return closed_ && (!started_ || ended_);
}

bool CommandThread::IsCurrent() const {
  absl::MutexLock lock(&mutex_);
  return started_ && thread_id_ == std::this_thread::get_id();
}

void CommandThread::Join() {
  std::thread thread;
  {
    absl::MutexLock lock(&mutex_);
    thread = std::move(thread_);
  }
  if (thread.joinable()) thread.join();  // without the lock: the thread may still want it
}

void CommandThread::Detach() {
  absl::MutexLock lock(&mutex_);
  if (thread_.joinable()) thread_.detach();
}

}  // namespace cli::internal
