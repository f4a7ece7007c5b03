#include "link/events/tool_feed.h"

#include <sys/socket.h>

#include <chrono>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <utility>

#include "link/base/backoff.h"
#include "link/events/subject.h"
#include "link/events/tool_line.h"

namespace vexlink {
namespace {

using Json = nlohmann::json;
using Clock = vexctl::Connection::Clock;
using Got = vexctl::Connection::Got;

constexpr auto kFirstPause = std::chrono::milliseconds(200);
constexpr auto kLongestPause = std::chrono::seconds(2);  // the tool is on this machine: looking costs little
constexpr auto kReplyTime = std::chrono::seconds(5);     // the tool answers a monitor at once

int ProcessOf(int socket) {
  ucred peer{};
  socklen_t size = sizeof peer;
  ::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size);
  return peer.pid;
}

template <typename T>
T Member(const Json& object, const char* name, T otherwise) {
  const auto member = object.find(name);
  const bool fits = member != object.end() && member->type() == Json(otherwise).type();
  return fits ? member->get<T>() : otherwise;
}

std::string Hexadecimal(std::uint64_t number) {
  char text[17];
  std::snprintf(text, sizeof text, "%llx", static_cast<unsigned long long>(number));
  return text;
}

std::string StartOfProcess() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return Hexadecimal(static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(now).count()));
}

}  // namespace

ToolFeed::ToolFeed(Settings settings, EventBuffer& buffer, SharedToolState& state, Log& log)
    : settings_(std::move(settings)),
      buffer_(buffer),
      state_(state),
      log_(log),
      gaps_(!settings_.words.empty()),
      start_(StartOfProcess()) {}

ToolFeed::~ToolFeed() {
  Stop();
  if (thread_.joinable()) thread_.join();
}

void ToolFeed::Start() { thread_ = std::thread(&ToolFeed::Run, this); }

void ToolFeed::Run() {
  Backoff backoff(kFirstPause, kLongestPause);
  while (!stop_.IsSet()) {
    vexctl::Connection connection(stop_.Fd());
    std::string why = connection.Open(settings_.socket);
    if (why.empty()) why = Watch(connection);
    if (why.empty()) {
      backoff.Reset();
      why = Read(connection);
    }
    if (stop_.IsSet()) return;
    state_.Away(why);
    log_.Say("the tool is away: " + why);
    WaitForOne({&stop_}, backoff.Next());
  }
}

// Asks for the events. "" or why there are none.
std::string ToolFeed::Watch(vexctl::Connection& connection) {
  const Json greeting = Json::parse(connection.Line(), nullptr, false);
  const auto session = Member(greeting, "session", std::uint64_t{0});
  const auto version = Member(greeting, "vextool", std::string());
  if (!connection.Send(Json{{"id", 1}, {"monitor", settings_.words}}.dump() + "\n")) return "the tool has ended";
  if (std::string why = Confirmed(connection); !why.empty()) return why;
  gaps_.OnConnected({ProcessOf(connection.Fd()), session});
  ++tools_;
  state_.Here(version, session);
  log_.SayChange("connected to the tool, " + version + ", at " + settings_.socket);
  return "";
}

std::string ToolFeed::Confirmed(vexctl::Connection& connection) {
  const Got got = connection.Receive(Clock::now() + kReplyTime);
  if (got != Got::kLine)
    return got == Got::kEnd ? "the tool has ended" : "the tool does not answer; look whether it is well";
  const ToolLine reply = ReadToolLine(connection.Line());
  if (reply.kind != ToolLine::Kind::kReply) return "something else than vextool answers";
  return reply.error.empty() ? "" : "the tool refuses the events that --events names: " + reply.error;
}

std::string ToolFeed::Read(vexctl::Connection& connection) {
  for (;;) {
    switch (connection.Receive(std::nullopt)) {
      case Got::kLine:
        Take(connection.Line());
        break;
      case Got::kEnd:
        return "the tool has ended";
      case Got::kTimeout:
        break;
      case Got::kInterrupted:
        return "asked to end";
    }
  }
}

void ToolFeed::Take(std::string_view line) {
  ToolLine read = ReadToolLine(line);
  if (read.kind == ToolLine::Kind::kMissed) buffer_.AddGap(gaps_.OnMissed(read.missed));
  if (read.kind != ToolLine::Kind::kEvent) return;
  if (auto gap = gaps_.OnEvent(read.seq)) buffer_.AddGap(std::move(*gap));
  Outgoing event;
  event.subject = "vextool." + settings_.node + ".event." + TopicTokens(read.topic);
  event.payload = read.event;
  event.id = settings_.node + "-" + start_ + "-" + std::to_string(tools_) + "-" + std::to_string(read.seq);
  event.seq = read.seq;
  buffer_.AddEvent(std::move(event));
}

}  // namespace vexlink
