// The session of a program on the control socket: requests in, a reply to each, and the events that it watches.
#ifndef KLBASE_CONSOLE_CONTROL_CONTROL_SESSION_H_
#define KLBASE_CONSOLE_CONTROL_CONTROL_SESSION_H_

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "cli/feed/events.h"
#include "console/control/captured_output.h"
#include "console/control/protocol/request.h"
#include "console/output_buffer.h"
#include "console/session/command_runner.h"
#include "console/session/command_thread.h"
#include "console/session/listed_session.h"
#include "console/session/session_host.h"
#include "line_editor/history.h"

namespace cli::internal {

// Runs, completions and resets wait in a queue and are done one after another, on the command thread; all other
// requests are answered at once. A run that is given up (cancelled, or its time is over) is answered at once, too; the
// next one begins when its command has returned.
//
// Owned (shared) by its connection, by the table of sessions and by its command thread. The runner and the history
// belong to the thread that works on the queue. Replies and events are whole lines, and go to the wire in one piece.
class ControlSession : public ListedSession,
                       private CommandThread::Host,
                       public std::enable_shared_from_this<ControlSession> {
 public:
  using Clock = std::chrono::steady_clock;

  // While more wait, the connection should read no more.
  static constexpr std::size_t kMaxWaiting = 1000;
  static constexpr std::size_t kMaxWaitingBytes = 256 << 10;

  // All of these may be called on any thread, without a lock.
  struct Transport {
    std::shared_ptr<OutputBuffer> wire;
    // The wire has text that is not urgent: write it soon.
    std::function<void()> flush_soon;
    // At `time` OnDeadline(run) is to be called.
    std::function<void(Clock::time_point time, std::uint64_t run)> watch_deadline;
    std::function<void()> want_input;  // there is room for requests again
    std::function<void()> ended;       // it does nothing more; close it when its output is out
  };
  struct Config {
    int id = 0;
    std::string peer;
    std::string user;  // for the records of lines
    std::shared_ptr<Menu> root;
    std::shared_ptr<const Builtins> builtins;
    SessionHost* host = nullptr;
    Transport transport;
  };

  explicit ControlSession(Config config);

  // --- The connection's side; its thread.
  void Greet();
  // Takes over a request, but for kTerminal. False when no more should come until `want_input`.
  bool OnRequest(Request request);
  // Nothing has been asked for so far.
  bool Unused() const;
  // No more requests come: those that wait are done, then it ends, unless it watches events.
  void OnEndOfInput();
  void OnDeadline(std::uint64_t run);
  // Says how many events were missed, once the client reads again.
  void OnRoom();

  // --- Any thread.
  // A whole line, or more of them.
  void Send(std::string_view lines);
  // Does nothing more: the client is gone, or the console ends. A command under way is given up.
  void Close();
  bool Watches() const;
  // Requests wait or are worked on.
  bool Busy() const;
  std::chrono::milliseconds IdleFor() const;

  // --- ListedSession
  int Id() const override { return config_.id; }
  SessionKind Kind() const override { return SessionKind::kControl; }
  std::optional<SessionInfo> Info() const override;
  void ShowNotice(std::string_view) override {}
  void Finish(std::string_view farewell) override;
  CommandThread& Thread() override { return thread_; }

 private:
  // A run under way.
  struct Running {
    std::uint64_t number = 0;
    std::string id;
    std::string_view line;  // the request's, which outlives the run
    Clock::time_point begin;
    std::optional<std::chrono::milliseconds> within;
    std::stop_source stop;
    bool answered = false;  // it was given up
  };

  // Requests that are answered at once:
  void StartMonitor(const Request& request);
  void Cancel(const Request& request);
  void Watch(EventFeed::Matches matches, std::string_view reply);
  void ShowEvent(const Event& event);
  // Gives up the run under way if `is_meant` takes it, and answers for it.
  template <typename Predicate>
  bool GiveUp(const Predicate& is_meant, Status status, const std::string& why);

  // Runs no further line.
  void End();
  bool IdInUseLocked(const std::string& id) const ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);

  // The command thread:
  void RunLines(std::string line) override;
  void ThreadEnded() override { config_.host->ThreadEnded(config_.id); }
  std::optional<Request> NextRequest();
  void Work(const Request& request);
  void RunLine(const Request& request);
  void Reset(const Request& request);
  bool BeginRun(const Request& request, Running& run);
  // Any thread.
  void Record(std::string_view line, Status status, int code, std::chrono::microseconds time) const;

  const Config config_;
  const std::shared_ptr<OutputBuffer> wire_;
  const std::chrono::system_clock::time_point since_ = std::chrono::system_clock::now();
  std::atomic<Clock::rep> last_input_;
  std::stop_source ending_;  // before the parts that have its token
  CommandThread thread_;
  CapturedOutput captured_;
  // Of the thread that works on the queue.
  History history_;
  CommandRunner runner_;
  bool waited_ = false;  // the request waited behind another one

  mutable absl::Mutex mutex_;
  std::deque<Request> waiting_ ABSL_GUARDED_BY(mutex_);
  std::size_t waiting_bytes_ ABSL_GUARDED_BY(mutex_) = 0;
  std::optional<Running> running_ ABSL_GUARDED_BY(mutex_);
  std::uint64_t runs_ ABSL_GUARDED_BY(mutex_) = 0;
  bool used_ ABSL_GUARDED_BY(mutex_) = false;
  bool working_ ABSL_GUARDED_BY(mutex_) = false;  // the command thread has the queue
  bool held_back_ ABSL_GUARDED_BY(mutex_) = false;
  bool end_of_input_ ABSL_GUARDED_BY(mutex_) = false;
  bool ended_ ABSL_GUARDED_BY(mutex_) = false;
  bool end_told_ ABSL_GUARDED_BY(mutex_) = false;

  // Held while an event's line is put into the wire, so that no event comes before the reply to its monitor.
  mutable absl::Mutex events_mutex_;
  std::shared_ptr<const EventFeed::Watcher> watcher_ ABSL_GUARDED_BY(events_mutex_);
  std::uint64_t missed_ ABSL_GUARDED_BY(events_mutex_) = 0;
};

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_CONTROL_CONTROL_SESSION_H_
