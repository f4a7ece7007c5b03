#include "example/rpc/messages/message_fields.h"

#include <google/protobuf/text_format.h>
#include <google/protobuf/util/json_util.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <optional>

#include "example/rpc/messages/field_value.h"
#include "example/rpc/messages/message_words.h"

namespace rpc {
namespace {

using google::protobuf::Descriptor;
using google::protobuf::EnumDescriptor;
using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::Reflection;

bool IsMessage(const FieldDescriptor& field) { return field.cpp_type() == FieldDescriptor::CPPTYPE_MESSAGE; }

std::string InHex(const std::string& bytes) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text = "0x";
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    text += kDigits[byte >> 4];
    text += kDigits[byte & 15];
  }
  return text;
}

// A value that is not a message; `index` is -1 for a single one.
std::string ValueText(const Message& message, const FieldDescriptor& field, int index) {
  const Reflection& reflection = *message.GetReflection();
  if (field.cpp_type() == FieldDescriptor::CPPTYPE_STRING) {
    const std::string text =
        index < 0 ? reflection.GetString(message, &field) : reflection.GetRepeatedString(message, &field, index);
    return field.type() == FieldDescriptor::TYPE_BYTES ? InHex(text) : text;
  }
  std::string text;
  google::protobuf::TextFormat::PrintFieldValueToString(message, &field, index, &text);
  return text;
}

void AddFields(const std::string& prefix, const Message& message, FieldLines& lines);

void AddValue(const std::string& name, const Message& message, const FieldDescriptor& field, int index,
              FieldLines& lines) {
  const Reflection& reflection = *message.GetReflection();
  if (!IsMessage(field)) {
    lines.emplace_back(name, ValueText(message, field, index));
  } else {
    AddFields(
        name + ".",
        index < 0 ? reflection.GetMessage(message, &field) : reflection.GetRepeatedMessage(message, &field, index),
        lines);
  }
}

// By key: a map has no order of its own.
void AddEntries(const std::string& name, const Message& message, const FieldDescriptor& field, FieldLines& lines) {
  const Reflection& reflection = *message.GetReflection();
  std::vector<std::pair<std::string, const Message*>> entries;
  for (int i = 0; i < reflection.FieldSize(message, &field); ++i) {
    const Message& entry = reflection.GetRepeatedMessage(message, &field, i);
    entries.emplace_back(ValueText(entry, *field.message_type()->map_key(), -1), &entry);
  }
  std::sort(entries.begin(), entries.end());
  const std::string prefix = name + ".";
  for (const auto& [key, entry] : entries) {
    AddValue(prefix + key, *entry, *field.message_type()->map_value(), -1, lines);
  }
}

void AddFields(const std::string& prefix, const Message& message, FieldLines& lines) {
  const Descriptor& type = *message.GetDescriptor();
  const Reflection& reflection = *message.GetReflection();
  for (int i = 0; i < type.field_count(); ++i) {
    const FieldDescriptor& field = *type.field(i);
    const std::string name = prefix + field.name();
    if (field.is_map()) {
      AddEntries(name, message, field, lines);
    } else if (field.is_repeated()) {
      for (int at = 0; at < reflection.FieldSize(message, &field); ++at) {
        AddValue(name + "." + std::to_string(at), message, field, at, lines);
      }
    } else if (!field.has_presence() || reflection.HasField(message, &field)) {
      AddValue(name, message, field, -1, lines);
    }
  }
}

const FieldDescriptor* Singular(const Message& message, const char* name) {
  const FieldDescriptor* field = message.GetDescriptor()->FindFieldByName(name);
  return field != nullptr && !field->is_repeated() ? field : nullptr;
}

// A large code is not 0 either.
int Clamped(std::int64_t number) {
  using Limits = std::numeric_limits<int>;
  return static_cast<int>(std::clamp<std::int64_t>(number, Limits::min(), Limits::max()));
}

// The number of the first of the fields that is there and has one that fits a code.
std::optional<int> Number(const Message& message, std::initializer_list<const char*> names) {
  const Reflection& reflection = *message.GetReflection();
  for (const char* name : names) {
    const FieldDescriptor* field = Singular(message, name);
    if (field == nullptr) continue;
    switch (field->cpp_type()) {
      case FieldDescriptor::CPPTYPE_INT32:
        return reflection.GetInt32(message, field);
      case FieldDescriptor::CPPTYPE_UINT32:
        return Clamped(reflection.GetUInt32(message, field));
      case FieldDescriptor::CPPTYPE_INT64:
        return Clamped(reflection.GetInt64(message, field));
      case FieldDescriptor::CPPTYPE_ENUM:
        return reflection.GetEnumValue(message, field);
      default:
        break;
    }
  }
  return std::nullopt;
}

std::string Text(const Message& message, std::initializer_list<const char*> names) {
  for (const char* name : names) {
    const FieldDescriptor* field = Singular(message, name);
    if (field == nullptr || field->type() != FieldDescriptor::TYPE_STRING) continue;
    std::string text = message.GetReflection()->GetString(message, field);
    if (!text.empty()) return text;
  }
  return {};
}

std::optional<Verdict> OwnVerdict(const Message& message) {
  const FieldDescriptor* result = Singular(message, "result");
  if (result != nullptr && result->cpp_type() == FieldDescriptor::CPPTYPE_BOOL) {
    return Verdict{message.GetReflection()->GetBool(message, result),
                   Number(message, {"error_code", "code"}).value_or(0),
                   Text(message, {"error_infor", "error_info", "message", "reason"})};
  }
  const auto code = Number(message, {"code"});
  if (!code) return std::nullopt;
  return Verdict{*code == 0, *code, Text(message, {"message", "text", "reason"})};
}

}  // namespace

FieldLines FieldsOf(const Message& message) {
  FieldLines lines;
  AddFields({}, message, lines);
  return lines;
}

std::string BlockOf(const FieldLines& fields, std::string_view indent) {
  constexpr std::size_t kWidest = 40;
  std::size_t width = 0;
  for (const auto& [name, value] : fields) width = std::max(width, std::min(name.size(), kWidest));
  std::string block;
  for (const auto& [name, value] : fields) {
    block += indent;
    block += name;
    block.append(width > name.size() ? width - name.size() : 0, ' ');
    block += ":" + value + "\n";
  }
  return block;
}

std::string JsonOf(const Message& message) {
  google::protobuf::util::JsonPrintOptions options;
  options.preserve_proto_field_names = true;
  options.always_print_primitive_fields = true;
  std::string json;
  return google::protobuf::util::MessageToJsonString(message, &json, options).ok() ? json : "{}";
}

// A message that is not set is read as its defaults: a player's reply without a result has been refused.
Verdict VerdictOf(const Message& reply) {
  if (auto own = OwnVerdict(reply)) return *own;
  for (const char* name : {"result", "status"}) {
    const FieldDescriptor* field = Singular(reply, name);
    if (field == nullptr || !IsMessage(*field)) continue;
    if (auto verdict = OwnVerdict(reply.GetReflection()->GetMessage(reply, field))) return *verdict;
  }
  return {};
}

// --- description

namespace {

std::string ValuesText(const EnumDescriptor& type) {
  std::string text;
  for (int i = 0; i < type.value_count(); ++i) {
    text += (i == 0 ? "" : " | ") + type.value(i)->name() + "=" + std::to_string(type.value(i)->number());
  }
  return text;
}

std::string KindText(const FieldDescriptor& field) {
  if (field.is_map()) {
    return "map: " + TypeText(*field.message_type()->map_key()) + " to " + TypeText(*field.message_type()->map_value());
  }
  std::string text = field.is_repeated() ? "list of " + TypeText(field) : TypeText(field);
  if (field.cpp_type() == FieldDescriptor::CPPTYPE_ENUM) text += ": " + ValuesText(*field.enum_type());
  if (field.is_required()) text += ", required";
  if (const auto* oneof = field.real_containing_oneof()) text += ", one of " + oneof->name();
  return text;
}

// A type that holds others twice, which hold others twice, has more fields than anybody reads.
constexpr std::size_t kMostDescribed = 500;

// `above` are the types that this one stands in: a type in itself is named and not followed.
void AddDescription(const std::string& prefix, const Descriptor& type, std::vector<const Descriptor*>& above,
                    FieldLines& lines) {
  above.push_back(&type);
  for (int i = 0; i < type.field_count() && lines.size() <= kMostDescribed; ++i) {
    const FieldDescriptor& field = *type.field(i);
    const std::string name = prefix + field.name();
    const bool follows = IsMessage(field) && !field.is_map() && field.message_type()->field_count() > 0 &&
                         std::find(above.begin(), above.end(), field.message_type()) == above.end();
    if (!follows || field.is_repeated()) lines.emplace_back(name, KindText(field));
    if (follows) AddDescription(name + (field.is_repeated() ? ".0." : "."), *field.message_type(), above, lines);
  }
  above.pop_back();
}

}  // namespace

std::string Description(const Descriptor& type) {
  FieldLines lines;
  std::vector<const Descriptor*> above;
  AddDescription({}, type, above, lines);
  const bool cut = lines.size() > kMostDescribed;
  if (cut) lines.resize(kMostDescribed);
  std::size_t width = 0;
  for (const auto& [name, kind] : lines) width = std::max(width, name.size());
  std::string text;
  for (const auto& [name, kind] : lines) {
    text.append("  ").append(name).append(width - name.size() + 2, ' ').append(kind).append("\n");
  }
  if (cut) text += "  ... and more; describe the types inside\n";
  return text.empty() ? "  no fields\n" : text;
}

}  // namespace rpc
