#include "link/runs/run_request.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

namespace vexlink {
namespace {

using Json = nlohmann::ordered_json;
using std::chrono::milliseconds;

std::string Text(const Json& json) { return json.dump(-1, ' ', false, Json::error_handler_t::replace); }

std::string ReadWithin(const Json& value, RunRequest& request) {
  const double most = milliseconds(kMostWithin).count();
  if (!value.is_number() || !(value.get<double>() >= 1 && value.get<double>() <= most)) {
    return "within_ms is a number from 1 to " + std::to_string(milliseconds(kMostWithin).count());
  }
  request.within = milliseconds(static_cast<milliseconds::rep>(value.get<double>()));
  return "";
}

std::string ReadMember(const std::string& key, const Json& value, RunRequest& request) {
  if (key == "within_ms") return ReadWithin(value, request);
  if (key == "run") {
    if (!value.is_string()) return "\"run\" is a text: a line of the console";
    request.line = value.get<std::string>();
    return "";
  }
  if (key == "id") {
    if (!value.is_string() && !value.is_number_integer()) return "\"id\" is a whole number or a text";
    request.id = Text(value);
    return "";
  }
  return "unknown key \"" + key + "\"; a request has run, and perhaps id and within_ms";
}

std::string ReadObject(std::string_view payload, RunRequest& request) {
  const Json json = Json::parse(payload, nullptr, false);
  if (!json.is_object()) return "the request is not JSON; send a line, or an object with \"run\"";
  std::string error = json.contains("run") ? "" : "the request has no \"run\"";
  for (const auto& [key, value] : json.items()) {
    const std::string wrong = ReadMember(key, value, request);
    if (error.empty()) error = wrong;
  }
  return error;
}

std::string ReadLine(std::string_view payload, RunRequest& request) {
  if (payload.ends_with('\n')) payload.remove_suffix(1);
  if (payload.ends_with('\r')) payload.remove_suffix(1);
  request.line = payload;
  return payload.find_first_not_of(" \t") == std::string_view::npos ? "the request is empty; send a line of the console"
                                                                    : "";
}

bool IsUtf8(const std::string& text) {
  try {
    return !Json(text).dump().empty();
  } catch (const Json::exception&) {
    return false;
  }
}

std::string Check(const RunRequest& request) {
  if (request.line.find_first_of(std::string_view("\r\n\0", 3)) != std::string::npos) {
    return "a request is one line; send a request for each";
  }
  return IsUtf8(request.line) ? "" : "the request is not UTF-8 text";
}

// The longest beginning of `text` that takes at most `room` bytes as JSON and ends between two characters.
std::string Beginning(const std::string& text, std::size_t room) {
  std::size_t from = 0;
  std::size_t to = text.size();
  while (from < to) {
    const std::size_t middle = from + (to - from + 1) / 2;
    if (Text(Json(text.substr(0, middle))).size() <= room) {
      from = middle;
    } else {
      to = middle - 1;
    }
  }
  while (from > 0 && from < text.size() && (static_cast<unsigned char>(text[from]) & 0xc0) == 0x80) --from;
  return text.substr(0, from);
}

}  // namespace

RunRequest ReadRunRequest(std::string_view payload) {
  RunRequest request;
  if (payload.size() > kMostRequestBytes) {
    request.error = "the request has more than " + std::to_string(kMostRequestBytes) + " bytes";
    return request;
  }
  const bool is_object = payload.starts_with('{');
  request.error = is_object ? ReadObject(payload, request) : ReadLine(payload, request);
  if (request.error.empty()) request.error = Check(request);
  return request;
}

std::string ToolRequest(const RunRequest& request, milliseconds left) {
  const Json json = {{"run", request.line}, {"within_ms", std::max<milliseconds::rep>(left.count(), 1)}};
  std::string text = json.dump();
  if (!request.id.empty()) text.insert(1, "\"id\":" + request.id + ",");
  return text + "\n";
}

std::string MadeReply(const std::string& id, std::string_view status, std::string_view reason) {
  const std::string text = Text(Json{{"status", status}, {"reason", reason}});
  return id.empty() ? text : "{\"id\":" + id + "," + text.substr(1);
}

std::string WithNode(std::string_view reply, const std::string& node) {
  return "{\"node\":\"" + node + "\"," + std::string(reply.substr(1));
}

std::string CutToFit(std::string reply, std::size_t most_bytes) {
  if (reply.size() <= most_bytes) return reply;
  Json json = Json::parse(reply, nullptr, false);
  const std::string too_large = "the reply has more bytes than a message on the cluster may have";
  if (!json.is_object()) return MadeReply("", "failed", too_large);
  const std::string id = json.contains("id") ? Text(json["id"]) : "";
  if (!json.contains("output") || !json["output"].is_string()) return MadeReply(id, "failed", too_large);
  const std::string output = std::exchange(json["output"], "").get<std::string>();
  json["truncated"] = true;
  const std::size_t rest = Text(json).size();
  if (rest > most_bytes) return MadeReply(id, "failed", too_large);
  json["output"] = Beginning(output, most_bytes - rest + 2);  // the quotes are in both
  return Text(json);
}

}  // namespace vexlink
