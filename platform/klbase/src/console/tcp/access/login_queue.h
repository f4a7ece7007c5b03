// Passwords that wait to be checked: one after another, in turn by the address that they came from.
#ifndef KLBASE_CONSOLE_TCP_ACCESS_LOGIN_QUEUE_H_
#define KLBASE_CONSOLE_TCP_ACCESS_LOGIN_QUEUE_H_

#include <atomic>
#include <chrono>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "console/session/login.h"
#include "klbase/steady_cond_var.h"

namespace cli::internal {

// A client that waits for its password's check, as its connection says. Any thread.
struct LoginClient {
  std::atomic<bool> gone{false};   // nobody hears the answer
  std::atomic<bool> ended{false};  // it sends no more, so it may be gone
};

// A hash costs a lot of work on purpose, so one thread makes them all, for clients that are still there. After a wrong
// password the next one from the same address waits, longer each time: hanging up instead of waiting gains nothing, and
// operators at other addresses don't notice. Who waits is bounded by the connections that are let in before a login.
//
// Owned by the server. Any thread, except where a function says otherwise.
class LoginQueue {
 public:
  using Check = std::function<bool(const std::string& password)>;
  using Answer = std::function<void(PasswordVerdict verdict)>;

  // An address waits `delay` after its first wrong password and half as much more after each further one, up to three
  // times `delay`. `check` is called on the queue's thread.
  LoginQueue(Check check, std::chrono::milliseconds delay) : check_(std::move(check)), delay_(delay) {}
  // Not on the queue's thread: joins it. No answer comes any more.
  ~LoginQueue();

  // `answer` is called once: on the queue's thread, or on the caller's when the queue is closed or has no thread.
  void Post(std::string password, std::string address, std::shared_ptr<const LoginClient> client, Answer answer);
  // Checks no more: all that wait, and all that come, are answered with kNotChecked.
  void Close();

 private:
  using Clock = std::chrono::steady_clock;
  struct Guess {
    std::string password;
    std::string address;
    std::shared_ptr<const LoginClient> client;
    Answer answer;
  };
  using Guesses = std::list<Guess>;
  struct Failures {
    int count = 0;
    Clock::time_point next{};  // no password is checked before
  };

  bool StartLocked() ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);
  void Run();
  Guesses WaitForGuess();
  Guesses TakeGoneLocked() ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);
  Guesses::iterator NextLocked(Clock::time_point now, Clock::time_point* due) ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);
  void Note(const std::string& address, bool right);
  void ForgetOldLocked(Clock::time_point now) ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);

  const Check check_;
  const std::chrono::milliseconds delay_;
  absl::Mutex mutex_;
  klbase::SteadyCondVar changed_;
  Guesses waiting_ ABSL_GUARDED_BY(mutex_);  // the oldest first
  std::map<std::string, Failures> failures_ ABSL_GUARDED_BY(mutex_);
  bool closed_ ABSL_GUARDED_BY(mutex_) = false;
  std::thread thread_ ABSL_GUARDED_BY(mutex_);
};

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_TCP_ACCESS_LOGIN_QUEUE_H_
