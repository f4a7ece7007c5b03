#include "console/control/control_session.h"

#include <algorithm>
#include <utility>

#include "console/commands/event_commands.h"
#include "console/control/protocol/reply.h"
#include "console/record/line_record.h"
#include "console/session/line_turns.h"

namespace cli::internal {
namespace {

constexpr char kSessionEnds[] = "the session ends; nothing of this line was done";
constexpr char kMayStill[] = "a daemon that has the request may still carry it out";

std::chrono::microseconds Since(ControlSession::Clock::time_point begin) {
  return std::chrono::duration_cast<std::chrono::microseconds>(ControlSession::Clock::now() - begin);
}

bool IsBlank(std::string_view line) { return line.find_first_not_of(" \t") == std::string_view::npos; }

std::string NotRun(const Request& request, Status status, const std::string& why) {
  return request.kind == Request::Kind::kRun ? RunReply(request.id, {status, 0, why, {}}, "", false, {})
                                             : StatusReply(request.id, status, why);
}

}  // namespace

ControlSession::ControlSession(Config config)
    : config_(std::move(config)),
      wire_(config_.transport.wire),
      last_input_(Clock::now().time_since_epoch().count()),
      thread_(config_.id),
      runner_([this] {
        CommandRunner::Config runner;
        runner.session_id = config_.id;
        runner.root = config_.root;
        runner.builtins = config_.builtins;
        runner.output = &captured_;
        runner.history = &history_;
        runner.host = config_.host;
        runner.end = [this] { End(); };
        runner.monitor = [this](EventFeed::Matches matches) { Watch(std::move(matches), {}); };
        runner.ending = ending_.get_token();
        runner.answer_in_output = false;
        return runner;
      }()) {}

// --- the connection's side, and any thread

void ControlSession::Greet() { Send(GreetingLine(config_.id)); }

void ControlSession::Send(std::string_view line) {
  wire_->Append(line);
  wire_->FlushUnlessBlocked();
}

bool ControlSession::Unused() const {
  const absl::MutexLock lock(&mutex_);
  return !used_;
}

bool ControlSession::OnRequest(Request request) {
  last_input_ = Clock::now().time_since_epoch().count();
  if (request.kind == Request::Kind::kMonitor || request.kind == Request::Kind::kCancel) {
    {
      const absl::MutexLock lock(&mutex_);
      used_ = true;
      if (ended_) return true;
    }
    request.kind == Request::Kind::kMonitor ? StartMonitor(request) : Cancel(request);
    return true;
  }
  bool start = false;
  bool full = false;
  bool twice = false;
  bool ended = false;
  {
    const absl::MutexLock lock(&mutex_);
    used_ = true;
    ended = ended_;
    twice = IdInUseLocked(request.id);
    if (!ended && !twice) {
      waiting_bytes_ += request.text.size();
      waiting_.push_back(request);
      start = !std::exchange(working_, true);
      full = waiting_.size() >= kMaxWaiting || waiting_bytes_ >= kMaxWaitingBytes;
      held_back_ = held_back_ || full;  // more may come of what was read already, and find room
    }
  }
  if (ended) {
    Send(NotRun(request, Status::kCancelled, kSessionEnds));
  } else if (twice) {
    Send(StatusReply(request.id, Status::kUsage, "a run with this id has not ended; give each one an id of its own"));
  } else if (start && !thread_.Post("", std::shared_ptr<CommandThread::Host>(shared_from_this(), this))) {
    {
      const absl::MutexLock lock(&mutex_);
      ended_ = true;
      end_told_ = true;
      working_ = false;
      waiting_.clear();
    }
    Send(NotRun(request, Status::kFailed, "no thread can be started for the line; try again later"));
    config_.transport.ended();
  }
  return !full;
}

bool ControlSession::IdInUseLocked(const std::string& id) const {
  if (id.empty()) return false;
  return (running_ && !running_->answered && running_->id == id) ||
         std::any_of(waiting_.begin(), waiting_.end(), [&id](const Request& request) { return request.id == id; });
}

void ControlSession::OnEndOfInput() {
  const bool watches = Watches();
  bool tell = false;
  {
    const absl::MutexLock lock(&mutex_);
    end_of_input_ = true;
    if (!working_ && !watches) {
      ended_ = true;
      tell = !std::exchange(end_told_, true);
    }
  }
  if (tell) config_.transport.ended();
}

void ControlSession::StartMonitor(const Request& request) {
  const MonitorChoice choice = ReadMonitorWords(request.words);
  if (!choice.error.empty()) return Send(StatusReply(request.id, Status::kUsage, choice.error));
  Watch(choice.matches, StatusReply(request.id, Status::kOk));
  wire_->FlushUnlessBlocked();
}

// Nothing that is posted after `reply` is missed, and no event comes before it.
void ControlSession::Watch(EventFeed::Matches matches, std::string_view reply) {
  std::shared_ptr<const EventFeed::Watcher> watcher;
  const absl::MutexLock lock(&events_mutex_);
  if (matches) {
    watcher = runner_.Feed().Watch([weak = weak_from_this(), matches = std::move(matches)](const EventPtr& event) {
      if (!matches(*event)) return;
      if (const auto session = weak.lock()) session->ShowEvent(*event);
    });
  }
  watcher_ = std::move(watcher);
  wire_->Append(reply);
}

void ControlSession::ShowEvent(const Event& event) {
  const std::string line = EventLine(event);
  {
    const absl::MutexLock lock(&events_mutex_);
    if (watcher_ == nullptr) return;
    if (wire_->Pending() > OutputBuffer::kMaxPending) {
      ++missed_;
      CountDroppedEvent(Kind());
      return;
    }
    wire_->Append(missed_ == 0 ? line : MissedLine(std::exchange(missed_, 0)) + line);
  }
  if (wire_->Pending() > OutputBuffer::kFlushSize) {
    wire_->FlushUnlessBlocked();
  } else {
    config_.transport.flush_soon();
  }
}

void ControlSession::OnRoom() {
  {
    const absl::MutexLock lock(&events_mutex_);
    if (missed_ == 0) return;
    wire_->Append(MissedLine(std::exchange(missed_, 0)));
  }
  wire_->FlushUnlessBlocked();
}

bool ControlSession::Watches() const {
  const absl::MutexLock lock(&events_mutex_);
  return watcher_ != nullptr;
}

void ControlSession::Cancel(const Request& request) {
  std::optional<Request> waited;
  {
    const absl::MutexLock lock(&mutex_);
    const auto meant = std::find_if(waiting_.begin(), waiting_.end(),
                                    [&request](const Request& other) { return other.id == request.text; });
    if (meant != waiting_.end()) {
      waiting_bytes_ -= meant->text.size();
      waited = std::move(*meant);
      waiting_.erase(meant);
    }
  }
  if (waited) {
    Send(NotRun(*waited, Status::kCancelled, "cancelled before it began"));
  } else if (!GiveUp([&request](const Running& run) { return run.id == request.text; }, Status::kCancelled,
                     std::string("cancelled; ") + kMayStill)) {
    return Send(StatusReply(request.id, Status::kRefused, "no run with the id " + request.text + " is under way"));
  }
  Send(StatusReply(request.id, Status::kOk));
}

void ControlSession::OnDeadline(std::uint64_t run) {
  std::string why;
  {
    const absl::MutexLock lock(&mutex_);
    if (!running_ || running_->number != run) return;
    why = "no answer within " + std::to_string(running_->within->count()) + " ms; given up, " + kMayStill;
  }
  GiveUp([run](const Running& other) { return other.number == run; }, Status::kTimeout, why);
}

template <typename Predicate>
bool ControlSession::GiveUp(const Predicate& is_meant, Status status, const std::string& why) {
  std::optional<std::stop_source> stop;
  {
    const absl::MutexLock lock(&mutex_);
    if (!running_ || running_->answered || !is_meant(*running_)) return false;
    running_->answered = true;
    stop.emplace(running_->stop);
    const auto time = Since(running_->begin);
    // With the lock held: the next run, whose output and reply must not come in between, can't begin.
    Record(running_->line, status, 0, time);
    const CapturedOutput::Text printed = captured_.Take();
    wire_->Append(RunReply(running_->id, {status, 0, why, {}}, printed.text, printed.truncated, time));
  }
  stop->request_stop();
  wire_->FlushUnlessBlocked();
  return true;
}

void ControlSession::Finish(std::string_view) {
  ending_.request_stop();
  End();
  bool tell = false;
  {
    const absl::MutexLock lock(&mutex_);
    tell = !working_ && !std::exchange(end_told_, true);
  }
  if (tell) config_.transport.ended();
}

void ControlSession::End() {
  const absl::MutexLock lock(&mutex_);
  ended_ = true;
}

void ControlSession::Close() {
  ending_.request_stop();
  std::optional<std::stop_source> stop;
  {
    const absl::MutexLock lock(&mutex_);
    ended_ = true;
    end_told_ = true;
    waiting_.clear();
    if (running_) stop = running_->stop;
  }
  {
    const absl::MutexLock lock(&events_mutex_);
    watcher_.reset();
  }
  if (stop) stop->request_stop();
  thread_.Close();
}

bool ControlSession::Busy() const {
  const absl::MutexLock lock(&mutex_);
  return working_;
}

std::chrono::milliseconds ControlSession::IdleFor() const {
  const Clock::duration idle(Clock::now().time_since_epoch().count() - last_input_.load());
  return std::chrono::duration_cast<std::chrono::milliseconds>(idle);
}

std::optional<SessionInfo> ControlSession::Info() const {
  {
    const absl::MutexLock lock(&mutex_);
    if (ended_) return std::nullopt;
  }
  return SessionInfo{config_.id,         Kind(), config_.peer,
                     runner_.MenuName(), since_, std::chrono::duration_cast<std::chrono::seconds>(IdleFor())};
}

// --- the command thread

void ControlSession::RunLines(std::string) {
  while (const auto request = NextRequest()) {
    if (waited_) {
      const LineTurns::Turn turn(config_.host->Turns());
      Work(*request);
    } else {
      Work(*request);
    }
    waited_ = waited_ || request->kind != Request::Kind::kReset;  // which takes no time
  }
  waited_ = false;
}

// None when the queue is given back. What waits behind the session's end is answered in its turn, by Work().
std::optional<Request> ControlSession::NextRequest() {
  wire_->WaitForRoom(OutputBuffer::kBusyPending);
  const bool watches = Watches();
  std::optional<Request> request;
  bool resume = false;
  bool tell = false;
  {
    const absl::MutexLock lock(&mutex_);
    if (waiting_.empty()) {
      working_ = false;
      ended_ = ended_ || (end_of_input_ && !watches);
      tell = ended_ && !std::exchange(end_told_, true);
    } else {
      request = std::move(waiting_.front());
      waiting_.pop_front();
      waiting_bytes_ -= request->text.size();
      const bool room = waiting_.size() < kMaxWaiting / 2 && waiting_bytes_ < kMaxWaitingBytes / 2;
      resume = room && std::exchange(held_back_, false);
    }
  }
  if (resume) config_.transport.want_input();
  if (tell) config_.transport.ended();
  return request;
}

void ControlSession::Work(const Request& request) {
  bool ended = false;
  {
    const absl::MutexLock lock(&mutex_);
    ended = ended_;
  }
  if (ended) {
    Send(NotRun(request, Status::kCancelled, kSessionEnds));
  } else if (request.kind == Request::Kind::kReset) {
    Reset(request);
  } else if (request.kind == Request::Kind::kComplete) {
    Send(CompletionReply(request.id, runner_.CompleteLine(request.text)));
  } else {
    RunLine(request);
  }
  last_input_ = Clock::now().time_since_epoch().count();
}

// As the session was when it was opened. No event comes behind the reply.
void ControlSession::Reset(const Request& request) {
  runner_.Reset();
  history_ = {};
  Watch(nullptr, StatusReply(request.id, Status::kOk));
  wire_->FlushUnlessBlocked();
}

bool ControlSession::BeginRun(const Request& request, Running& run) {
  const absl::MutexLock lock(&mutex_);
  // Its client is gone, or it came out of the queue as the session ended.
  if (ended_) return false;
  run.number = ++runs_;
  run.id = request.id;
  run.line = request.text;
  run.begin = Clock::now();
  run.within = request.within;
  running_ = run;
  return true;
}

void ControlSession::RunLine(const Request& request) {
  Running run;
  if (!BeginRun(request, run)) return Send(NotRun(request, Status::kCancelled, kSessionEnds));
  if (run.within) config_.transport.watch_deadline(run.begin + *run.within, run.number);
  if (!IsBlank(request.text)) history_.Add(request.text);
  const Outcome outcome = runner_.Run(request.text, run.stop.get_token());
  const CapturedOutput::Text printed = captured_.Take();
  bool answered = false;
  {
    const absl::MutexLock lock(&mutex_);
    answered = running_->answered;
    running_.reset();
  }
  if (answered) return;
  const auto time = Since(run.begin);
  Record(run.line, outcome.status, outcome.code, time);
  Send(RunReply(run.id, outcome, printed.text, printed.truncated, time));
}

void ControlSession::Record(std::string_view line, Status status, int code, std::chrono::microseconds time) const {
  if (!IsBlank(line)) RecordLine({config_.id, Kind(), config_.user, std::string(line), status, code, time});
}

}  // namespace cli::internal
