#include "console/tcp/access/login_queue.h"

#include <signal.h>

#include <algorithm>
#include <system_error>
#include <utility>

#include "klbase/log.h"

namespace cli::internal {

LoginQueue::~LoginQueue() {
  Close();
  std::thread thread;
  {
    absl::MutexLock lock(&mutex_);
    thread = std::move(thread_);
  }
  if (thread.joinable()) thread.join();
}

void LoginQueue::Post(std::string password, std::string address, std::shared_ptr<const LoginClient> client,
                      Answer answer) {
  Guess guess{std::move(password), std::move(address), std::move(client), std::move(answer)};
  {
    absl::MutexLock lock(&mutex_);
    if (!closed_ && StartLocked()) {
      waiting_.push_back(std::move(guess));
      changed_.SignalAll();
      return;
    }
  }
  guess.answer(PasswordVerdict::kNotChecked);
}

void LoginQueue::Close() {
  Guesses left;
  {
    absl::MutexLock lock(&mutex_);
    closed_ = true;
    left.swap(waiting_);
    changed_.SignalAll();
  }
  for (const Guess& guess : left) guess.answer(PasswordVerdict::kNotChecked);
}

// With the first password. The thread handles no signals: it holds a lock now and then.
bool LoginQueue::StartLocked() {
  if (thread_.joinable()) return true;
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, &before);
  try {
    thread_ = std::thread([this] { Run(); });
  } catch (const std::system_error& e) {
    KL_LOG(50, "console: no thread to check passwords: %s\n", e.what());
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return thread_.joinable();
}

void LoginQueue::Run() {
  for (Guesses guesses = WaitForGuess(); !guesses.empty(); guesses = WaitForGuess()) {
    for (const Guess& guess : guesses) {
      if (guess.client->gone) {
        guess.answer(PasswordVerdict::kNotChecked);
        continue;
      }
      const bool right = check_(guess.password);
      Note(guess.address, right);
      guess.answer(right ? PasswordVerdict::kRight : PasswordVerdict::kWrong);
    }
  }
}

// The guess to be checked next, or those whose clients are gone; none when the queue is closed.
LoginQueue::Guesses LoginQueue::WaitForGuess() {
  absl::MutexLock lock(&mutex_);
  while (!closed_) {
    Guesses taken = TakeGoneLocked();
    if (!taken.empty()) return taken;
    auto due = Clock::time_point::max();
    const auto next = NextLocked(Clock::now(), &due);
    if (next != waiting_.end()) {
      taken.splice(taken.end(), waiting_, next);
      return taken;
    }
    waiting_.empty() ? changed_.Wait(&mutex_) : static_cast<void>(changed_.WaitUntil(&mutex_, due));
  }
  return {};
}

LoginQueue::Guesses LoginQueue::TakeGoneLocked() {
  Guesses gone;
  for (auto guess = waiting_.begin(); guess != waiting_.end();) {
    const auto at = guess++;
    if (at->client->gone) gone.splice(gone.end(), waiting_, at);
  }
  return gone;
}

// The oldest whose address may try now; before one that may be gone, one that is not. Else `due` is set to the time of
// the first that may.
LoginQueue::Guesses::iterator LoginQueue::NextLocked(Clock::time_point now, Clock::time_point* due) {
  auto chosen = waiting_.end();
  for (auto guess = waiting_.begin(); guess != waiting_.end(); ++guess) {
    const auto failures = failures_.find(guess->address);
    const auto from = failures == failures_.end() ? now : failures->second.next;
    *due = std::min(*due, from);
    if (from > now) continue;
    if (!guess->client->ended) return guess;
    if (chosen == waiting_.end()) chosen = guess;
  }
  return chosen;
}

void LoginQueue::Note(const std::string& address, bool right) {
  constexpr int kMostHalves = 4;
  absl::MutexLock lock(&mutex_);
  const auto now = Clock::now();
  ForgetOldLocked(now);
  if (right) {
    failures_.erase(address);
    return;
  }
  Failures& failures = failures_[address];
  failures.next = now + delay_ + delay_ * std::min(failures.count++, kMostHalves) / 2;
}

// Addresses that have not failed for a minute begin anew; so do the first of very many.
void LoginQueue::ForgetOldLocked(Clock::time_point now) {
  constexpr std::size_t kMost = 1000;
  const auto oldest = now - std::chrono::minutes(1);
  std::erase_if(failures_, [oldest](const auto& entry) { return entry.second.next < oldest; });
  if (failures_.size() >= kMost) failures_.erase(failures_.begin());
}

}  // namespace cli::internal
