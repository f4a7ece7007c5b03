#include "link/runs/run_service.h"

#include <utility>

namespace vexlink {
namespace {

using Got = vexctl::Connection::Got;
using std::chrono::milliseconds;

// The tool keeps the limit itself; one that hangs can't.
constexpr auto kGrace = std::chrono::seconds(1);

constexpr char kEnding[] = "vexlink is ending";

milliseconds Left(RunService::Clock::time_point deadline) {
  return std::chrono::duration_cast<milliseconds>(deadline - RunService::Clock::now());
}

// A line that the tool gave up may go on behind its reply. Only an id stands before the status, with its quotes
// escaped.
bool MayStillRun(std::string_view reply) {
  constexpr std::string_view kStatus = "\"status\":\"";
  const std::size_t at = reply.find(kStatus);
  if (at == std::string_view::npos) return true;
  const std::string_view status = reply.substr(at + kStatus.size());
  return status.starts_with("timeout\"") || status.starts_with("cancelled\"");
}

}  // namespace

RunService::RunService(const std::string& socket, std::string node, Send send)
    : node_(std::move(node)), send_(std::move(send)), sessions_(socket, stop_) {}

RunService::~RunService() { Stop(); }

void RunService::Start() {
  for (int i = 0; i < kAtOnce; ++i) threads_.emplace_back(&RunService::Work, this);
}

void RunService::Stop() {
  stop_.Set();
  {
    const absl::MutexLock lock(&mutex_);
    stopped_ = true;
    changed_.SignalAll();
  }
  for (std::thread& thread : threads_) thread.join();
  threads_.clear();
}

void RunService::Accept(std::string_view payload, const std::string& reply_to, bool named) {
  Job job{ReadRunRequest(payload), reply_to, named, {}};
  if (!job.request.error.empty()) return Answer(job, MadeReply(job.request.id, "usage", job.request.error));
  job.deadline = Clock::now() + job.request.within;
  if (const std::string refusal = Enqueue(job); !refusal.empty()) Answer(job, refusal);
}

// "", or the reply to a job that is not taken; `job` is as it was then.
std::string RunService::Enqueue(Job& job) {
  const absl::MutexLock lock(&mutex_);
  if (stopped_) return MadeReply(job.request.id, "unreachable", kEnding);
  if (waiting_.size() >= kMostWaiting) {
    return MadeReply(job.request.id, "failed",
                     std::to_string(kMostWaiting) + " requests wait already; try again later");
  }
  waiting_.push_back(std::move(job));
  changed_.Signal();
  return "";
}

// The next one, once there is one; false when there is none and none will come.
bool RunService::Next(Job& job) {
  const absl::MutexLock lock(&mutex_);
  while (waiting_.empty() && !stopped_) changed_.Wait(&mutex_);
  if (waiting_.empty()) return false;
  job = std::move(waiting_.front());
  waiting_.pop_front();
  return true;
}

void RunService::Work() {
  Job job;
  while (Next(job)) {
    ToolSessions::Session session;
    Answer(job, Run(job, session));
    if (!stop_.IsSet()) sessions_.Prepare(std::move(session));
  }
}

std::string RunService::Run(const Job& job, ToolSessions::Session& session) {
  const std::string& id = job.request.id;
  if (stop_.IsSet()) return MadeReply(id, "unreachable", kEnding);
  if (Left(job.deadline) <= milliseconds(0))
    return MadeReply(id, "timeout", "other requests took all the time; it was not run");
  std::string why;
  session = sessions_.Take(Left(job.deadline + kGrace), why);
  if (session == nullptr) return MadeReply(id, "unreachable", stop_.IsSet() ? kEnding : why);
  bool usable = false;
  std::string reply = Ask(job, *session, usable);
  if (!usable) session = nullptr;
  return reply;
}

std::string RunService::Ask(const Job& job, vexctl::Connection& session, bool& usable) {
  const std::string& id = job.request.id;
  if (!session.Send(ToolRequest(job.request, Left(job.deadline))))
    return MadeReply(id, "unreachable", "the tool has ended");
  switch (ReceiveReply(session, job.deadline + kGrace)) {
    case Got::kLine: {
      std::string reply(session.Line());
      usable = !MayStillRun(reply);
      return reply;
    }
    case Got::kEnd:
      return MadeReply(id, "unreachable", "the tool ended before it answered; whether the line was done is not known");
    case Got::kTimeout:
      return MadeReply(id, "timeout", "the tool does not answer; whether the line was done is not known");
    case Got::kInterrupted:
      break;
  }
  return MadeReply(id, "unreachable", std::string(kEnding) + "; whether the line was done is not known");
}

void RunService::Answer(const Job& job, const std::string& reply) {
  if (job.reply_to.empty()) return;
  send_(job.reply_to, job.named ? WithNode(reply, node_) : reply);
}

}  // namespace vexlink
