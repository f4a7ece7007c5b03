#include "example/rpcservice/pubsub/event_block.h"

#include <google/protobuf/util/json_util.h>

#include <iostream>
#include <memory>
#include <string>
#include <utility>

#include "cli/feed.h"

namespace {

using google::protobuf::Message;

constexpr std::string_view kBlockStart = "***************************************\n";

std::string JsonOf(const Message& event) {
  google::protobuf::util::JsonPrintOptions options;
  options.preserve_proto_field_names = true;
  options.always_print_primitive_fields = true;  // a script waits for zeros too
  std::string json;
  return google::protobuf::util::MessageToJsonString(event, &json, options).ok() ? json : "{}";  // broken UTF-8
}

}  // namespace

std::string PrintEventBlock(std::initializer_list<EventLine> lines) {
  std::string text(kBlockStart);
  for (const auto& line : lines) text.append(line.label).append(line.value).push_back('\n');
  if (!std::cout) std::cout.clear();  // one failed write, to a full disk say, must not silence all later events
  std::cout.write(text.data(), static_cast<std::streamsize>(text.size())).flush();
  return text;
}

void ShowEvent(const char* topic, const google::protobuf::Message& event, std::initializer_list<EventLine> lines) {
  std::string text = PrintEventBlock(lines);
  const std::shared_ptr<Message> copy(event.New());
  copy->CopyFrom(event);
  cli::PostEvent(topic, std::move(text), [copy] { return JsonOf(*copy); });
}
