// Requests that came over the cluster, as the tool takes them, and its replies, as the cluster takes them.
#ifndef LINK_RUNS_RUN_REQUEST_H_
#define LINK_RUNS_RUN_REQUEST_H_

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>

namespace vexlink {

constexpr auto kDefaultWithin = std::chrono::seconds(30);
constexpr auto kMostWithin = std::chrono::minutes(10);
constexpr std::size_t kMostRequestBytes = 65536;  // as the tool has it

struct RunRequest {
  std::string error;  // "" where it can be run
  std::string line;   // of the console
  std::string id;     // JSON, as it came; "" for none
  std::chrono::milliseconds within{kDefaultWithin};
};

// A payload is a line, or an object with `run`, and perhaps `id` and `within_ms`.
RunRequest ReadRunRequest(std::string_view payload);

// The request for the control socket, with its line end. `left` is the time until the requester's limit.
std::string ToolRequest(const RunRequest& request, std::chrono::milliseconds left);

// A reply of our own in the tool's form.
std::string MadeReply(const std::string& id, std::string_view status, std::string_view reason);

// `reply` with the node's name in front.
std::string WithNode(std::string_view reply, const std::string& node);

// `reply` with so much less of its output, and `truncated`, that it has at most `most_bytes`.
std::string CutToFit(std::string reply, std::size_t most_bytes);

}  // namespace vexlink

#endif  // LINK_RUNS_RUN_REQUEST_H_
