#include "console/control/protocol/request.h"

#include <algorithm>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <set>
#include <utility>

#include "line_editor/limits.h"

namespace cli::internal {
namespace {

using Json = nlohmann::json;

constexpr std::int64_t kMostMs = 86'400'000;  // a day
constexpr int kMostCells = 10'000;            // columns or rows: more than any terminal has

// What is wrong with a request.
struct Wrong {
  std::string why;
};

// Of the keys, twice the same one would leave open which of them counts.
Json ParseObject(std::string_view line) {
  std::set<std::string> keys;
  std::string twice;
  const auto look = [&](int depth, Json::parse_event_t event, Json& parsed) {
    if (event == Json::parse_event_t::key && depth == 1 && !keys.insert(parsed.get<std::string>()).second) {
      twice = parsed.get<std::string>();
    }
    return true;
  };
  Json object;
  try {
    object = Json::parse(line.begin(), line.end(), look);
  } catch (const Json::parse_error& error) {
    throw Wrong{"this is not JSON (byte " + std::to_string(error.byte) +
                "); send one object a line, such as {\"id\":1,\"run\":\"help\"}"};
  } catch (const Json::exception&) {  // a number out of range
    throw Wrong{"this JSON has a number that is too large"};
  }
  if (!object.is_object()) throw Wrong{"this is not an object; send one a line, such as {\"id\":1,\"run\":\"help\"}"};
  if (!twice.empty()) throw Wrong{"the key \"" + twice + "\" stands there twice"};
  return object;
}

std::string ReadId(const Json& value, const char* key) {
  if (value.is_number_integer() || value.is_string()) return value.dump();
  throw Wrong{std::string(key) + " must be a whole number or a text"};
}

// A line of the console; one that begins a line may be empty.
std::string ReadLine(const Json& value, const char* key) {
  if (!value.is_string()) throw Wrong{std::string(key) + " must be a text: one line of the console"};
  auto line = value.get<std::string>();
  const auto is_control = [](char c) { return (static_cast<unsigned char>(c) < ' ' && c != '\t') || c == '\x7f'; };
  if (std::any_of(line.begin(), line.end(), is_control)) {
    throw Wrong{std::string(key) + " has a control character; it must be one line, without its end"};
  }
  if (line.size() > kMaxLineBytes) {
    throw Wrong{std::string(key) + " is longer than " + std::to_string(kMaxLineBytes) + " bytes"};
  }
  return line;
}

std::chrono::milliseconds ReadWithin(const Json& value) {
  if (value.is_number_integer() && value >= 1 && value <= kMostMs) {
    return std::chrono::milliseconds(value.get<std::int64_t>());
  }
  throw Wrong{"within_ms must be a whole number from 1 to " + std::to_string(kMostMs)};
}

std::vector<std::string> ReadWords(const Json& value) {
  const bool texts =
      value.is_array() && std::all_of(value.begin(), value.end(), [](const Json& word) { return word.is_string(); });
  if (!texts) throw Wrong{"monitor must be a list of texts: topics and conditions, or none for all events"};
  return value.get<std::vector<std::string>>();
}

int ReadCells(const Json& value, const std::string& key) {
  if (value.is_number_integer() && value >= 1 && value <= kMostCells) return value.get<int>();
  throw Wrong{"terminal." + key + " must be a whole number from 1 to " + std::to_string(kMostCells)};
}

void ReadTerminal(const Json& value, Request& request) {
  if (!value.is_object()) throw Wrong{"terminal must be an object with columns, rows and term"};
  for (const auto& [key, member] : value.items()) {
    if (key == "columns") {
      request.columns = ReadCells(member, key);
    } else if (key == "rows") {
      request.rows = ReadCells(member, key);
    } else if (key == "term" && member.is_string()) {
      request.term = member.get<std::string>();
    } else if (key == "term") {
      throw Wrong{"terminal.term must be a text, such as \"xterm\""};
    } else {
      throw Wrong{"unknown key \"terminal." + key + "\"; there are columns, rows and term"};
    }
  }
  if (request.columns == 0 || request.rows == 0) throw Wrong{"terminal needs columns and rows"};
}

void ReadMember(const std::string& key, const Json& value, Request& request, std::vector<Request::Kind>& kinds) {
  if (key == "id") return;
  if (key == "within_ms") {
    request.within = ReadWithin(value);
  } else if (key == "run") {
    kinds.push_back(Request::Kind::kRun);
    request.text = ReadLine(value, "run");
  } else if (key == "complete") {
    kinds.push_back(Request::Kind::kComplete);
    request.text = ReadLine(value, "complete");
  } else if (key == "monitor") {
    kinds.push_back(Request::Kind::kMonitor);
    request.words = ReadWords(value);
  } else if (key == "cancel") {
    kinds.push_back(Request::Kind::kCancel);
    request.text = ReadId(value, "cancel");
  } else if (key == "reset") {
    kinds.push_back(Request::Kind::kReset);
    if (value != true) throw Wrong{"reset must be true"};
  } else if (key == "terminal") {
    kinds.push_back(Request::Kind::kTerminal);
    ReadTerminal(value, request);
  } else {
    throw Wrong{"unknown key \"" + key +
                "\"; there are id, run, within_ms, complete, monitor, cancel, reset and terminal"};
  }
}

Request ReadRequest(const Json& object, std::string id) {
  Request request;
  request.id = std::move(id);
  std::vector<Request::Kind> kinds;
  for (const auto& [key, value] : object.items()) ReadMember(key, value, request, kinds);
  if (kinds.size() != 1) throw Wrong{"send one of run, complete, monitor, cancel, reset and terminal at a time"};
  request.kind = kinds.front();
  if (request.within && request.kind != Request::Kind::kRun) throw Wrong{"within_ms goes with run"};
  return request;
}

}  // namespace

ParsedRequest ParseRequest(std::string_view line) {
  ParsedRequest parsed;
  try {
    const Json object = ParseObject(line);
    if (const auto id = object.find("id"); id != object.end()) parsed.id = ReadId(*id, "id");
    parsed.request = ReadRequest(object, parsed.id);
  } catch (const Wrong& wrong) {
    parsed.error = wrong.why;
  }
  return parsed;
}

void RequestLines::Feed(std::string_view bytes, const std::function<void(std::string_view line, bool whole)>& take) {
  unread_ = bytes;
  while (!unread_.empty()) {
    const std::size_t end = std::min(unread_.find('\n'), unread_.size());
    const bool ends = end < unread_.size();
    const std::string_view piece = unread_.substr(0, end);
    unread_.remove_prefix(ends ? end + 1 : end);
    too_long_ = too_long_ || line_.size() + piece.size() > kMaxRequestBytes;
    if (!too_long_) line_.append(piece);
    if (too_long_) line_.clear();
    if (!ends) break;
    const std::string line = std::exchange(line_, {});
    const bool whole = !std::exchange(too_long_, false);
    if (!whole || line.find_first_not_of(" \t\r") != std::string::npos) take(line, whole);
  }
}

std::string RequestLines::TakeRest() { return std::string(std::exchange(unread_, {})); }

}  // namespace cli::internal
