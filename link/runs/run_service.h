// Runs the lines that requests bring.
#ifndef LINK_RUNS_RUN_SERVICE_H_
#define LINK_RUNS_RUN_SERVICE_H_

#include <absl/base/thread_annotations.h>
#include <absl/synchronization/mutex.h>

#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "link/base/event_fd.h"
#include "link/runs/run_request.h"
#include "link/runs/tool_sessions.h"

namespace vexlink {

// Runs up to kAtOnce requests at once, in sessions of their own, while up to kMostWaiting wait; each is answered, by
// its limit of time at the latest but for a moment's grace for a tool that doesn't answer in time itself.
class RunService {
 public:
  using Clock = std::chrono::steady_clock;
  // Sends a reply to a requester. Called on any of the service's threads, and on Accept()'s.
  using Send = std::function<void(const std::string& to, const std::string& reply)>;

  static constexpr int kAtOnce = 8;
  static constexpr std::size_t kMostWaiting = 64;

  RunService(const std::string& socket, std::string node, Send send);
  RunService(const RunService&) = delete;
  RunService& operator=(const RunService&) = delete;
  // Stops, and joins the threads.
  ~RunService();

  void Start();
  // What runs and waits is answered as not reached; returns when that was sent.
  void Stop();

  // Any thread; never waits. `reply_to` is "" where no answer is wanted. `named`: the reply says which node it is from.
  void Accept(std::string_view payload, const std::string& reply_to, bool named);

 private:
  struct Job {
    RunRequest request;
    std::string reply_to;
    bool named = false;
    Clock::time_point deadline;
  };

  std::string Enqueue(Job& job);
  bool Next(Job& job);
  void Work();
  // `session` is the one that the job has run in, and null where something may still run in it.
  std::string Run(const Job& job, ToolSessions::Session& session);
  // `usable`: whether `session` may have another job.
  std::string Ask(const Job& job, vexctl::Connection& session, bool& usable);
  void Answer(const Job& job, const std::string& reply);

  const std::string node_;
  const Send send_;
  EventFd stop_;
  ToolSessions sessions_;
  absl::Mutex mutex_;
  absl::CondVar changed_;
  std::deque<Job> waiting_ ABSL_GUARDED_BY(mutex_);
  bool stopped_ ABSL_GUARDED_BY(mutex_) = false;
  std::vector<std::thread> threads_;
};

}  // namespace vexlink

#endif  // LINK_RUNS_RUN_SERVICE_H_
