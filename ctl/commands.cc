#include "ctl/commands.h"

#include <unistd.h>

#include <chrono>
#include <optional>
#include <string>
#include <utility>

#include "ctl/interrupt.h"
#include "ctl/line_file.h"

namespace vexctl {
namespace {

using Clock = Connection::Clock;
using Got = Connection::Got;

// The tool keeps time limits itself; one that is stopped can't.
constexpr auto kGrace = std::chrono::seconds(2);
// For the answer to a cancel, which the tool gives at once.
constexpr auto kCancelTime = std::chrono::seconds(1);

std::optional<Clock::time_point> DeadlineOf(const Arguments& arguments) {
  if (!arguments.within) return std::nullopt;
  return Clock::now() + *arguments.within + kGrace;
}

// One connection's requests and their replies.
class Requests {
 public:
  Requests(const Arguments& arguments, Connection& connection, Report& report)
      : arguments_(arguments), connection_(connection), report_(report) {}

  // Sends `request` with an id of its own and waits for its reply; what comes between is an event's. A reply is made up
  // where none comes.
  Json Ask(Json request) {
    const int id = ++last_id_;
    request["id"] = id;
    if (arguments_.within && request.contains("run")) request["within_ms"] = arguments_.within->count();
    std::string text;
    try {
      text = request.dump() + "\n";
    } catch (const Json::exception&) {
      return MadeReply("usage", "the line is not UTF-8 text");
    }
    if (connection_.IsInterrupted()) {
      interrupted_ = true;
      return MadeReply("cancelled", "interrupted before the line was sent");
    }
    if (!connection_.Send(text)) return Gone();
    return AwaitReply(id, DeadlineOf(arguments_));
  }
  // Whether there was an interrupt. The reply may be ok all the same: it was on its way.
  bool WasInterrupted() const { return interrupted_; }

 private:
  Json AwaitReply(int id, std::optional<Clock::time_point> deadline) {
    for (;;) {
      switch (connection_.Receive(deadline)) {
        case Got::kLine: {
          Json reply = Json::parse(connection_.Line(), nullptr, false);
          if (reply.is_object() && reply.contains("id") && reply["id"] == id) return reply;
          if (!reply.is_object() || reply.contains("id")) break;
          if (reply.contains("status")) return reply;  // too long, or the session ends
          report_.Event(connection_.Line());
          break;
        }
        case Got::kEnd:
          return Gone();
        case Got::kTimeout:
          if (interrupted_)
            return MadeReply("cancelled", "the tool does not answer; whether the line was done is not known");
          return MadeReply("timeout", "the tool does not answer; whether the line was done is not known");
        case Got::kInterrupted:
          TakeInterrupt();
          if (interrupted_) return MadeReply("cancelled", "interrupted; whether the line was done is not known");
          interrupted_ = true;
          deadline = Clock::now() + kCancelTime;
          // Its own answer has another id than the line's reply, and is left out by that.
          if (!connection_.Send(Json{{"id", ++last_id_}, {"cancel", id}}.dump() + "\n")) return Gone();
          break;
      }
    }
  }

  static Json Gone() {
    return MadeReply("unreachable", "the tool ended before it answered; whether the line was done is not known");
  }

  const Arguments& arguments_;
  Connection& connection_;
  Report& report_;
  int last_id_ = 0;
  bool interrupted_ = false;
};

// Runs lines one after another, and knows when to stop.
class Runner {
 public:
  Runner(const Arguments& arguments, Connection& connection, Report& report)
      : arguments_(arguments), report_(report), requests_(arguments, connection, report) {}

  void Run(const std::string& line) { Take(requests_.Ask({{"run", line}})); }
  // The reply to a line, also to one that can't be sent.
  void Take(Json reply) {
    const auto status = reply.find("status");
    lost_ = status != reply.end() && (*status == "unreachable" || *status == "timeout") && !reply.contains("id");
    Ended(report_.Reply(reply));
    last_ = std::move(reply);
  }
  // Behind a failure with -k too when nothing more can come of it.
  bool GoesOn() const { return !lost_ && !cancelled_ && (exit_ == kExitOk || arguments_.keep_going); }
  // Behind the last line that was run. Returns the exit status.
  int Finish() {
    if (!last_.is_null()) Ended(report_.Field(last_));
    return exit_;
  }

 private:
  void Ended(int exit) {
    if (exit_ == kExitOk) exit_ = exit;
    // An interrupt ends the script whatever has failed before.
    if (exit == kExitCancelled || requests_.WasInterrupted()) {
      cancelled_ = true;
      exit_ = kExitCancelled;
    }
    if (!report_.Flush() && exit_ == kExitOk) exit_ = kExitRefused;
  }

  const Arguments& arguments_;
  Report& report_;
  Requests requests_;
  Json last_;  // null before the first one
  int exit_ = kExitOk;
  bool lost_ = false;  // the tool answers no more
  bool cancelled_ = false;
};

void RunFile(const std::string& name, Runner& runner, Report& report) {
  LineFile file(name, InterruptFd());
  while (runner.GoesOn()) {
    const std::optional<LineFile::Line> line = file.Next();
    if (file.WasInterrupted()) {
      report.At(file.Name());
      runner.Take(MadeReply("cancelled", "interrupted"));
    }
    if (!line) break;
    report.At(file.Name() + (line->number > 0 ? ":" + std::to_string(line->number) : ""));
    if (!line->error.empty()) {
      runner.Take(MadeReply("usage", line->error));
      break;
    }
    runner.Run(line->text);
  }
}

}  // namespace

int Connect(const Arguments& arguments, Connection& connection, Report& report) {
  std::string why;
  const std::string path = SocketPath(arguments.socket, why);
  // An ssh client that has gone leaves nobody else who could interrupt it.
  if (!arguments.quiet || arguments.is_remote) connection.WatchReaderOf(STDOUT_FILENO);
  if (!path.empty()) why = connection.Open(path);
  if (why.empty()) return kExitOk;
  return report.Reply(MadeReply(connection.WasInterrupted() ? "cancelled" : "unreachable", why));
}

int RunSources(const Arguments& arguments, Report& report) {
  Connection connection(InterruptFd());
  if (const int exit = Connect(arguments, connection, report); exit != kExitOk) return exit;
  Runner runner(arguments, connection, report);
  for (const Source& source : arguments.sources) {
    if (!runner.GoesOn()) break;
    report.At("");
    source.is_file ? RunFile(source.text, runner, report) : runner.Run(source.text);
  }
  return runner.Finish();
}

int Monitor(const Arguments& arguments, Report& report) {
  Connection connection(InterruptFd());
  if (const int exit = Connect(arguments, connection, report); exit != kExitOk) return exit;
  const Json reply = Requests(arguments, connection, report).Ask({{"monitor", arguments.words}});
  if (const int exit = ExitStatus(reply.value("status", "")); exit != kExitOk) return report.Reply(reply);
  std::optional<Clock::time_point> deadline;
  if (arguments.within) deadline = Clock::now() + *arguments.within;
  for (;;) {
    // As many lines as there are go out at once.
    if ((!connection.HasLine() || report.IsLarge()) && !report.Flush()) return kExitRefused;
    switch (connection.Receive(deadline)) {
      case Got::kLine:
        report.Event(connection.Line());
        break;
      case Got::kEnd:
        return report.Reply(MadeReply("unreachable", "the tool has ended; no more events come"));
      case Got::kTimeout:
        // It is the end that was asked for, and only programs are told of it.
        if (arguments.json) report.Reply(MadeReply("timeout", "the time that --within gave is over"));
        return kExitTimeout;
      case Got::kInterrupted:
        // As above; a reader that has gone is told nothing.
        if (arguments.json && TakeInterrupt()) report.Reply(MadeReply("cancelled", "interrupted"));
        return kExitCancelled;
    }
  }
}

int Complete(const Arguments& arguments, Report& report) {
  Connection connection(InterruptFd());
  if (const int exit = Connect(arguments, connection, report); exit != kExitOk) return exit;
  const Json reply = Requests(arguments, connection, report).Ask({{"complete", arguments.words.front()}});
  const int exit = ExitStatus(reply.value("status", ""));
  if (exit != kExitOk || arguments.json) return report.Reply(reply);
  for (const auto& candidate : reply.value("candidates", Json::array())) {
    if (candidate.is_string()) report.Print(candidate.get<std::string>() + "\n");
  }
  return exit;
}

}  // namespace vexctl
