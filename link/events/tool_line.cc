#include "link/events/tool_line.h"

#include <nlohmann/json.hpp>
#include <optional>
#include <utility>

namespace vexlink {
namespace {

using Json = nlohmann::json;

constexpr std::string_view kEventHead = "{\"event\":";

// Takes seq and topic out of an event, and stops there: the message and the text behind them are the bulk of it.
class EventHead : public nlohmann::json_sax<Json> {
 public:
  std::optional<std::uint64_t> seq;
  std::optional<std::string> topic;

  bool null() override { return true; }
  bool boolean(bool) override { return true; }
  bool number_integer(number_integer_t) override { return true; }
  bool number_unsigned(number_unsigned_t value) override {
    if (depth_ == 1 && key_ == "seq") seq = value;
    return !Complete();
  }
  bool number_float(number_float_t, const string_t&) override { return true; }
  bool string(string_t& value) override {
    if (depth_ == 1 && key_ == "topic") topic = std::move(value);
    return !Complete();
  }
  bool binary(binary_t&) override { return true; }
  bool start_object(std::size_t) override {
    ++depth_;
    return true;
  }
  bool key(string_t& value) override {
    if (depth_ == 1) key_ = std::move(value);
    return true;
  }
  bool end_object() override {
    --depth_;
    return true;
  }
  bool start_array(std::size_t) override {
    ++depth_;
    return true;
  }
  bool end_array() override {
    --depth_;
    return true;
  }
  bool parse_error(std::size_t, const std::string&, const Json::exception&) override { return false; }

  bool Complete() const { return seq && topic; }

 private:
  int depth_ = 0;
  std::string key_;
};

bool ReadEvent(std::string_view line, ToolLine& read) {
  if (!line.starts_with(kEventHead) || !line.ends_with("}}")) return false;
  const std::string_view event = line.substr(kEventHead.size(), line.size() - kEventHead.size() - 1);
  EventHead head;
  Json::sax_parse(event, &head);
  if (!head.Complete()) return false;
  read = {ToolLine::Kind::kEvent, event, *head.seq, std::move(*head.topic), 0, ""};
  return true;
}

}  // namespace

ToolLine ReadToolLine(std::string_view line) {
  ToolLine read;
  if (ReadEvent(line, read)) return read;
  const Json json = Json::parse(line, nullptr, false);
  if (!json.is_object()) return read;
  if (const auto missed = json.find("missed"); missed != json.end() && missed->is_number_unsigned()) {
    read.kind = ToolLine::Kind::kMissed;
    read.missed = *missed;
  } else if (const auto status = json.find("status"); status != json.end() && status->is_string()) {
    read.kind = ToolLine::Kind::kReply;
    if (*status == "ok") return read;
    const auto reason = json.find("reason");
    read.error = reason != json.end() && reason->is_string() ? reason->get<std::string>() : status->get<std::string>();
  }
  return read;
}

}  // namespace vexlink
