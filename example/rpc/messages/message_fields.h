// Messages as people, scripts and the feed read them.
#ifndef EXAMPLE_RPC_MESSAGES_MESSAGE_FIELDS_H_
#define EXAMPLE_RPC_MESSAGES_MESSAGE_FIELDS_H_

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace rpc {

// A field's path and its value: "result.error_code", "url.0.index", "labels.KEY". Bytes are written 0x48656c6c6f, enums
// by name where they have one. Fields without presence are there with their default, others only when they are set.
using FieldLines = std::vector<std::pair<std::string, std::string>>;
FieldLines FieldsOf(const google::protobuf::Message& message);

// One line for each field, the values under one another, behind `indent`.
std::string BlockOf(const FieldLines& fields, std::string_view indent);

// The message as a JSON object in one line, with its own field names and all defaults; "{}" when it can't be written.
std::string JsonOf(const google::protobuf::Message& message);

// What a reply says of its request: it has a bool `result` or a number `code`, or a message `result` or `status` with
// one of them. Others are taken for a yes.
struct Verdict {
  bool accepted = true;
  int code = 0;
  std::string text;
};
Verdict VerdictOf(const google::protobuf::Message& reply);

// The type's fields, one in a line with its path and type: for people who are about to write one.
std::string Description(const google::protobuf::Descriptor& type);

}  // namespace rpc

#endif  // EXAMPLE_RPC_MESSAGES_MESSAGE_FIELDS_H_
