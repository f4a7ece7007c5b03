#include "console/control/protocol/reply.h"

#include <cstdio>
#include <ctime>
#include <nlohmann/json.hpp>

namespace cli::internal {
namespace {

using Json = nlohmann::ordered_json;

constexpr int kProtocol = 1;

std::string Text(const Json& json) { return json.dump(-1, ' ', false, Json::error_handler_t::replace); }

std::string Begin(const std::string& id) { return id.empty() ? "{" : "{\"id\":" + id + ","; }

// Puts `object`, not an empty one, behind the id.
std::string Line(const std::string& id, const Json& object) { return Begin(id) + Text(object).substr(1) + '\n'; }

// "2026-03-01T14:05:09.250Z".
std::string UtcTime(std::chrono::system_clock::time_point time) {
  const auto ms = std::chrono::floor<std::chrono::milliseconds>(time.time_since_epoch());
  const auto seconds = std::chrono::floor<std::chrono::seconds>(ms);
  const auto clock = static_cast<std::time_t>(seconds.count());
  std::tm utc{};
  gmtime_r(&clock, &utc);
  char text[40];
  const std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
  std::snprintf(text + length, sizeof text - length, ".%03dZ", static_cast<int>((ms - seconds).count()));
  return text;
}

// Of an event. It is JSON already, most likely on one line, which saves taking it apart.
std::string MessageText(const std::string& message) {
  if (message.find_first_of("\r\n") == std::string::npos && Json::accept(message)) return message;
  const Json parsed = Json::parse(message, nullptr, false);
  return Text(parsed.is_discarded() ? Json(message) : parsed);
}

}  // namespace

std::string GreetingLine(int session) {
  return Line("", {{"vextool", VEX_VERSION_TAG}, {"protocol", kProtocol}, {"session", session}});
}

std::string RunReply(const std::string& id, const Outcome& outcome, std::string_view output, bool truncated,
                     std::chrono::microseconds took) {
  Json fields = Json::object();
  for (const auto& [name, value] : outcome.fields) fields[name] = value;  // the last one of a name
  Json reply = {{"status", StatusName(outcome.status)},
                {"code", outcome.code},
                {"reason", outcome.reason},
                {"output", output},
                {"fields", fields},
                {"us", took.count()}};
  if (truncated) reply["truncated"] = true;
  return Line(id, reply);
}

std::string CompletionReply(const std::string& id, const Completion& completion) {
  return Line(
      id, {{"status", StatusName(Status::kOk)}, {"start", completion.start}, {"candidates", completion.candidates}});
}

std::string StatusReply(const std::string& id, Status status, std::string_view reason) {
  Json reply = {{"status", StatusName(status)}};
  if (!reason.empty()) reply["reason"] = reason;
  return Line(id, reply);
}

// Put together as text: of what a fast daemon costs those who watch its events this is a good part.
std::string EventLine(const Event& event) {
  std::string line = "{\"event\":{\"seq\":" + std::to_string(event.number);
  line.append(",\"time\":\"").append(UtcTime(event.time));
  line.append("\",\"topic\":").append(Text(event.topic));
  line.append(",\"message\":").append(MessageText(event.Message()));
  line.append(",\"text\":").append(Text(event.text));
  return line.append("}}\n");
}

std::string MissedLine(std::uint64_t events) { return Line("", {{"missed", events}}); }

}  // namespace cli::internal
