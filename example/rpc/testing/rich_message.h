// A message type with a field of every kind, which no program has compiled in.
#ifndef EXAMPLE_RPC_TESTING_RICH_MESSAGE_H_
#define EXAMPLE_RPC_TESTING_RICH_MESSAGE_H_

#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/text_format.h>
#include <google/protobuf/timestamp.pb.h>

#include <memory>
#include <stdexcept>

#include "example/rpc/messages/message_catalog.h"

namespace rpc {

// As protoc makes it of a proto3 file.
inline constexpr char kRichFile[] = R"(
name: "rich.proto" package: "rich.v1" syntax: "proto3" dependency: "google/protobuf/timestamp.proto"
enum_type { name: "Color" value { name: "NONE" number: 0 } value { name: "RED" number: 1 }
            value { name: "GREEN" number: 2 } }
message_type {
  name: "Rich"
  field { name: "i32" number: 1 label: LABEL_OPTIONAL type: TYPE_INT32 }
  field { name: "u32" number: 2 label: LABEL_OPTIONAL type: TYPE_UINT32 }
  field { name: "i64" number: 3 label: LABEL_OPTIONAL type: TYPE_INT64 }
  field { name: "u64" number: 4 label: LABEL_OPTIONAL type: TYPE_UINT64 }
  field { name: "f" number: 5 label: LABEL_OPTIONAL type: TYPE_FLOAT }
  field { name: "d" number: 6 label: LABEL_OPTIONAL type: TYPE_DOUBLE }
  field { name: "flag" number: 7 label: LABEL_OPTIONAL type: TYPE_BOOL }
  field { name: "color" number: 8 label: LABEL_OPTIONAL type: TYPE_ENUM type_name: ".rich.v1.Color" }
  field { name: "text" number: 9 label: LABEL_OPTIONAL type: TYPE_STRING }
  field { name: "raw" number: 10 label: LABEL_OPTIONAL type: TYPE_BYTES }
  field { name: "numbers" number: 11 label: LABEL_REPEATED type: TYPE_INT32 }
  field { name: "names" number: 12 label: LABEL_REPEATED type: TYPE_STRING }
  field { name: "colors" number: 13 label: LABEL_REPEATED type: TYPE_ENUM type_name: ".rich.v1.Color" }
  field { name: "labels" number: 14 label: LABEL_REPEATED type: TYPE_MESSAGE type_name: ".rich.v1.Rich.LabelsEntry" }
  field { name: "parts" number: 15 label: LABEL_REPEATED type: TYPE_MESSAGE type_name: ".rich.v1.Rich.PartsEntry" }
  field { name: "self" number: 16 label: LABEL_OPTIONAL type: TYPE_MESSAGE type_name: ".rich.v1.Rich" }
  field { name: "at" number: 17 label: LABEL_OPTIONAL type: TYPE_MESSAGE type_name: ".google.protobuf.Timestamp" }
  field { name: "choice_text" number: 18 label: LABEL_OPTIONAL type: TYPE_STRING oneof_index: 0 }
  field { name: "choice_number" number: 19 label: LABEL_OPTIONAL type: TYPE_INT32 oneof_index: 0 }
  field { name: "maybe" number: 20 label: LABEL_OPTIONAL type: TYPE_INT32 oneof_index: 1 proto3_optional: true }
  nested_type { name: "LabelsEntry" options { map_entry: true }
    field { name: "key" number: 1 label: LABEL_OPTIONAL type: TYPE_STRING }
    field { name: "value" number: 2 label: LABEL_OPTIONAL type: TYPE_INT32 } }
  nested_type { name: "PartsEntry" options { map_entry: true }
    field { name: "key" number: 1 label: LABEL_OPTIONAL type: TYPE_INT32 }
    field { name: "value" number: 2 label: LABEL_OPTIONAL type: TYPE_MESSAGE type_name: ".rich.v1.Rich" } }
  oneof_decl { name: "choice" }
  oneof_decl { name: "_maybe" }
}
)";

// The file and what it imports.
inline google::protobuf::FileDescriptorSet RichSet() {
  google::protobuf::FileDescriptorSet set;
  google::protobuf::Timestamp::descriptor()->file()->CopyTo(set.add_file());
  if (!google::protobuf::TextFormat::ParseFromString(kRichFile, set.add_file())) throw std::logic_error("kRichFile");
  return set;
}

// Its type, in a catalog of its own.
class RichMessage {
 public:
  const MessageCatalog& Catalog() const { return *catalog_; }
  const google::protobuf::Descriptor& Type() const { return catalog_->Find("rich.v1.Rich"); }
  // Not to be used any more when this object is gone.
  std::unique_ptr<google::protobuf::Message> New() const { return catalog_->New(Type()); }

 private:
  const std::unique_ptr<MessageCatalog> catalog_ = std::make_unique<MessageCatalog>(RichSet());
};

}  // namespace rpc

#endif  // EXAMPLE_RPC_TESTING_RICH_MESSAGE_H_
