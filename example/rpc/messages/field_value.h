// A field's value, from the text that an operator types.
#ifndef EXAMPLE_RPC_MESSAGES_FIELD_VALUE_H_
#define EXAMPLE_RPC_MESSAGES_FIELD_VALUE_H_

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include <cstdint>
#include <optional>
#include <string>
#include <variant>

namespace rpc {

// An enum's value is its number.
struct EnumNumber {
  int number = 0;
};
using FieldValue = std::variant<std::int32_t, std::int64_t, std::uint32_t, std::uint64_t, float, double, bool,
                                EnumNumber, std::string>;

// Reads `text` as one value of `field`, which holds no messages: numbers in decimal or behind 0x, bool as true, false,
// 1 or 0, an enum by name or number, bytes behind 0x, strings as they are. Throws std::invalid_argument with what is
// wrong and what would be right, for people.
FieldValue ReadValue(const google::protobuf::FieldDescriptor& field, const std::string& text);

// Sets the field. Of a list: the element at `index`, which must be there, or without one a new last element.
void PutValue(google::protobuf::Message& message, const google::protobuf::FieldDescriptor& field,
              const FieldValue& value, std::optional<int> index);

// "uint32", "lp.v1.MediaType".
std::string TypeText(const google::protobuf::FieldDescriptor& field);

}  // namespace rpc

#endif  // EXAMPLE_RPC_MESSAGES_FIELD_VALUE_H_
