// What vexlink is sent: a request from the cluster, a line or a reply of the tool, and the name of a topic.
//
// The input: the most bytes that a message may have, then the bytes, which are taken as each of these.
#include <algorithm>
#include <nlohmann/json.hpp>

#include "fuzz/fuzz.h"
#include "link/events/subject.h"
#include "link/events/tool_line.h"
#include "link/runs/run_request.h"

namespace {

using Json = nlohmann::json;

bool IsOneLine(std::string_view text) { return std::count(text.begin(), text.end(), '\n') == 0; }

// Of a subject: dots between tokens, of which none is empty, and nothing that means something there.
void CheckTopic(std::string_view topic) {
  const std::string tokens = vexlink::TopicTokens(topic);
  const std::string between_dots = "." + tokens + ".";
  FUZZ_CHECK(between_dots.find("..") == std::string::npos, fuzz::Detail(tokens));
  FUZZ_CHECK(tokens.size() <= vexlink::kMostTopicBytes, fuzz::Detail(tokens));
  for (const char c : tokens)
    FUZZ_CHECK(static_cast<unsigned char>(c) > ' ' && c != '*' && c != '>', fuzz::Detail(tokens));
}

// Of other bytes than those of a topic that is cut, the topic comes back.
std::string TopicOf(std::string_view tokens) {
  std::string topic;
  for (std::size_t i = 0; i < tokens.size(); ++i) {
    const bool alone = tokens[i] == '%' && (i + 1 == tokens.size() || tokens[i + 1] == '.');
    if (alone) continue;
    if (tokens[i] == '%') {
      topic += static_cast<char>(std::stoi(std::string(tokens.substr(i + 1, 2)), nullptr, 16));
      i += 2;
    } else {
      topic += tokens[i] == '.' ? '/' : tokens[i];
    }
  }
  return topic;
}

void CheckToolLine(std::string_view line) {
  const vexlink::ToolLine read = vexlink::ReadToolLine(line);
  if (read.kind != vexlink::ToolLine::Kind::kEvent) return;
  FUZZ_CHECK(line.substr(line.size() - read.event.size() - 1, read.event.size()) == read.event, fuzz::Detail(line));
  CheckTopic(read.topic);
}

void CheckRequest(std::string_view payload) {
  const vexlink::RunRequest request = vexlink::ReadRunRequest(payload);
  const std::string made = vexlink::MadeReply(request.id, "usage", request.error);
  FUZZ_CHECK(Json::accept(made) && IsOneLine(made), fuzz::Detail(made));
  FUZZ_CHECK(Json::accept(vexlink::WithNode(made, "n1")), fuzz::Detail(made));
  if (!request.error.empty()) return;
  const std::string sent = vexlink::ToolRequest(request, request.within);
  const Json parsed = Json::parse(sent, nullptr, false);
  FUZZ_CHECK(sent.ends_with('\n') && IsOneLine(std::string_view(sent).substr(0, sent.size() - 1)), fuzz::Detail(sent));
  FUZZ_CHECK(parsed.is_object() && parsed["run"] == request.line && IsOneLine(request.line), fuzz::Detail(sent));
  FUZZ_CHECK(parsed["within_ms"] >= 1 && parsed["within_ms"] <= 600'000, fuzz::Detail(sent));
  FUZZ_CHECK(parsed.contains("id") == !request.id.empty(), fuzz::Detail(sent));
}

void CheckCut(const std::string& reply, std::size_t most) {
  constexpr std::size_t kRefusal = 120;  // of a reply that can't be cut, without its id
  const std::string cut = vexlink::CutToFit(reply, most);
  if (reply.size() <= most) {
    FUZZ_CHECK_EQUAL(cut, reply);
    return;
  }
  FUZZ_CHECK(Json::accept(cut), fuzz::Detail(cut));
  const Json json = Json::parse(cut);
  FUZZ_CHECK(cut.size() <= most || json["status"] == "failed", fuzz::Detail(cut));
  FUZZ_CHECK(cut.size() <= std::max(most, kRefusal + (json.contains("id") ? json["id"].dump().size() : 0)),
             fuzz::Detail(cut));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  const auto most = static_cast<std::size_t>(input.Byte()) * 4;
  const std::string bytes(input.Rest());
  CheckTopic(bytes);
  const std::string tokens = vexlink::TopicTokens(bytes);
  if (tokens.size() + 4 < vexlink::kMostTopicBytes) FUZZ_CHECK_EQUAL(TopicOf(tokens), bytes);
  CheckToolLine(bytes);
  CheckRequest(bytes);
  CheckCut(bytes, most);
  const Json reply = {{"id", 7}, {"status", "ok"}, {"output", bytes}};
  CheckCut(reply.dump(-1, ' ', false, Json::error_handler_t::replace), most);
  return 0;
}
