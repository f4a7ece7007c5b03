#include "example/rpc/messages/field_value.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <limits>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <type_traits>
#include <utility>
#include <vector>

#include "example/rpc/messages/word_refusal.h"

namespace rpc {
namespace {

using google::protobuf::EnumDescriptor;
using google::protobuf::EnumValueDescriptor;
using google::protobuf::FieldDescriptor;
using google::protobuf::FileDescriptor;
using google::protobuf::Message;
using google::protobuf::Reflection;

[[noreturn]] void RefuseValue(const std::string& text) { throw std::invalid_argument(text); }

std::string Quoted(const std::string& text) { return '"' + text + '"'; }

// "seek_ms is uint32, from 0 to 4294967295".
template <typename Number>
std::string RangeText(const FieldDescriptor& field) {
  char least[32], most[32];
  const auto end_of_least = std::to_chars(least, least + sizeof least, std::numeric_limits<Number>::lowest());
  const auto end_of_most = std::to_chars(most, most + sizeof most, std::numeric_limits<Number>::max());
  return field.name() + " is " + TypeText(field) + ", from " + std::string(least, end_of_least.ptr) + " to " +
         std::string(most, end_of_most.ptr);
}

template <typename Number>
[[noreturn]] void RefuseRange(const FieldDescriptor& field, const std::string& text) {
  RefuseValue(text + " is out of range; " + RangeText<Number>(field));
}

template <typename Number>
[[noreturn]] void RefuseNumber(const FieldDescriptor& field, const std::string& text) {
  RefuseValue(Quoted(text) + " is not a number; " + RangeText<Number>(field));
}

// The digits and the sign apart, so that "-1" for an unsigned field is out of range and not a wrong number.
template <typename Number>
Number ReadInteger(const FieldDescriptor& field, const std::string& text) {
  std::string_view digits = text;
  const bool negative = digits.starts_with('-');
  if (negative) digits.remove_prefix(1);
  const int base = digits.starts_with("0x") || digits.starts_with("0X") ? 16 : 10;
  if (base == 16) digits.remove_prefix(2);
  std::uint64_t magnitude = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), magnitude, base);
  if (error == std::errc::invalid_argument || end != digits.data() + digits.size()) {
    RefuseNumber<Number>(field, text);
  }
  constexpr auto kMost = static_cast<std::uint64_t>(std::numeric_limits<Number>::max());
  const std::uint64_t limit = !negative ? kMost : std::is_signed_v<Number> ? kMost + 1 : 0;
  if (error == std::errc::result_out_of_range || magnitude > limit) RefuseRange<Number>(field, text);
  return static_cast<Number>(negative ? 0 - magnitude : magnitude);
}

template <typename Number>
Number ReadReal(const FieldDescriptor& field, const std::string& text) {
  Number number = 0;
  const char* last = text.data() + text.size();
  const auto [end, error] = std::from_chars(text.data(), last, number);
  if (error == std::errc::invalid_argument || end != last) RefuseNumber<Number>(field, text);
  if (error == std::errc::result_out_of_range) RefuseRange<Number>(field, text);
  return number;
}

bool ReadBool(const FieldDescriptor& field, const std::string& text) {
  if (text == "true" || text == "1") return true;
  if (text == "false" || text == "0") return false;
  RefuseValue(Quoted(text) + " is not a bool; " + field.name() + " is true or false");
}

bool SameButForCase(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](unsigned char x, unsigned char y) { return std::tolower(x) == std::tolower(y); });
}

const EnumValueDescriptor* ValueNamed(const EnumDescriptor& type, const std::string& name) {
  if (const auto* value = type.FindValueByName(name)) return value;
  const EnumValueDescriptor* found = nullptr;
  for (int i = 0; i < type.value_count(); ++i) {
    if (!SameButForCase(type.value(i)->name(), name)) continue;
    if (found != nullptr) return nullptr;  // two that differ in case only
    found = type.value(i);
  }
  return found;
}

bool LooksLikeANumber(const std::string& text) {
  return !text.empty() && (std::isdigit(static_cast<unsigned char>(text.front())) != 0 || text.front() == '-');
}

// Numbers without a name are taken where the type is open, as those of proto3 are: a daemon gets them from newer
// clients too.
EnumNumber ReadEnum(const FieldDescriptor& field, const std::string& text) {
  const EnumDescriptor& type = *field.enum_type();
  if (const EnumValueDescriptor* value = ValueNamed(type, text)) return {value->number()};
  if (!LooksLikeANumber(text)) {
    std::vector<std::string> names;
    names.reserve(type.value_count());
    for (int i = 0; i < type.value_count(); ++i) names.emplace_back(type.value(i)->name());
    RefuseValue(Quoted(text) + " is not a value of " + type.full_name() +
                NearestOr("\"rpc describe " + field.containing_type()->full_name() + "\" shows them", text, names));
  }
  const auto number = ReadInteger<std::int32_t>(field, text);
  const bool open = type.file()->syntax() == FileDescriptor::SYNTAX_PROTO3;
  if (!open && type.FindValueByNumber(number) == nullptr) {
    RefuseValue(text + " is not a value of " + type.full_name() + ", which takes only those that have a name");
  }
  return {number};
}

int HexDigit(char c) {
  const auto found = std::string_view("0123456789abcdef").find(static_cast<char>(std::tolower(c)));
  return found == std::string_view::npos ? -1 : static_cast<int>(found);
}

std::string ReadBytes(const FieldDescriptor& field, const std::string& text) {
  const std::string form = field.name() + " holds bytes, such as 0x48656c6c6f: two hexadecimal digits for each";
  if (!text.starts_with("0x") || text.size() % 2 != 0) RefuseValue(Quoted(text) + " is not bytes; " + form);
  std::string bytes;
  for (std::size_t i = 2; i < text.size(); i += 2) {
    const int high = HexDigit(text[i]);
    const int low = HexDigit(text[i + 1]);
    if (high < 0 || low < 0) RefuseValue(Quoted(text) + " is not bytes; " + form);
    bytes.push_back(static_cast<char>(high * 16 + low));
  }
  return bytes;
}

std::string ReadString(const FieldDescriptor& field, const std::string& text) {
  if (google::protobuf::internal::IsStructurallyValidUTF8(text.data(), static_cast<int>(text.size()))) return text;
  RefuseValue("the text is not UTF-8, which " + field.name() + " must be");
}

// What a value is put in with: the reflection's operation for a single field, for a new element and for an old one.
template <typename Value>
struct Operations {
  void (Reflection::*set)(Message*, const FieldDescriptor*, Value) const;
  void (Reflection::*add)(Message*, const FieldDescriptor*, Value) const;
  void (Reflection::*replace)(Message*, const FieldDescriptor*, int, Value) const;
};

struct Putter {
  Message& message;
  const FieldDescriptor& field;
  std::optional<int> index;

  template <typename Value>
  void With(const Operations<Value>& operations, Value value) const {
    const Reflection& reflection = *message.GetReflection();
    if (index) {
      (reflection.*operations.replace)(&message, &field, *index, std::move(value));
    } else {
      (reflection.*(field.is_repeated() ? operations.add : operations.set))(&message, &field, std::move(value));
    }
  }

  void operator()(std::int32_t value) const {
    With<std::int32_t>({&Reflection::SetInt32, &Reflection::AddInt32, &Reflection::SetRepeatedInt32}, value);
  }
  void operator()(std::int64_t value) const {
    With<std::int64_t>({&Reflection::SetInt64, &Reflection::AddInt64, &Reflection::SetRepeatedInt64}, value);
  }
  void operator()(std::uint32_t value) const {
    With<std::uint32_t>({&Reflection::SetUInt32, &Reflection::AddUInt32, &Reflection::SetRepeatedUInt32}, value);
  }
  void operator()(std::uint64_t value) const {
    With<std::uint64_t>({&Reflection::SetUInt64, &Reflection::AddUInt64, &Reflection::SetRepeatedUInt64}, value);
  }
  void operator()(float value) const {
    With<float>({&Reflection::SetFloat, &Reflection::AddFloat, &Reflection::SetRepeatedFloat}, value);
  }
  void operator()(double value) const {
    With<double>({&Reflection::SetDouble, &Reflection::AddDouble, &Reflection::SetRepeatedDouble}, value);
  }
  void operator()(bool value) const {
    With<bool>({&Reflection::SetBool, &Reflection::AddBool, &Reflection::SetRepeatedBool}, value);
  }
  void operator()(EnumNumber value) const {
    With<int>({&Reflection::SetEnumValue, &Reflection::AddEnumValue, &Reflection::SetRepeatedEnumValue}, value.number);
  }
  void operator()(const std::string& value) const {
    With<std::string>({&Reflection::SetString, &Reflection::AddString, &Reflection::SetRepeatedString}, value);
  }
};

}  // namespace

FieldValue ReadValue(const FieldDescriptor& field, const std::string& text) {
  switch (field.cpp_type()) {
    case FieldDescriptor::CPPTYPE_INT32:
      return ReadInteger<std::int32_t>(field, text);
    case FieldDescriptor::CPPTYPE_INT64:
      return ReadInteger<std::int64_t>(field, text);
    case FieldDescriptor::CPPTYPE_UINT32:
      return ReadInteger<std::uint32_t>(field, text);
    case FieldDescriptor::CPPTYPE_UINT64:
      return ReadInteger<std::uint64_t>(field, text);
    case FieldDescriptor::CPPTYPE_FLOAT:
      return ReadReal<float>(field, text);
    case FieldDescriptor::CPPTYPE_DOUBLE:
      return ReadReal<double>(field, text);
    case FieldDescriptor::CPPTYPE_BOOL:
      return ReadBool(field, text);
    case FieldDescriptor::CPPTYPE_ENUM:
      return ReadEnum(field, text);
    case FieldDescriptor::CPPTYPE_STRING:
      return field.type() == FieldDescriptor::TYPE_BYTES ? ReadBytes(field, text) : ReadString(field, text);
    case FieldDescriptor::CPPTYPE_MESSAGE:
      break;
  }
  RefuseValue(field.name() + " is a message");
}

void PutValue(Message& message, const FieldDescriptor& field, const FieldValue& value, std::optional<int> index) {
  std::visit(Putter{message, field, index}, value);
}

std::string TypeText(const FieldDescriptor& field) {
  if (field.cpp_type() == FieldDescriptor::CPPTYPE_ENUM) return field.enum_type()->full_name();
  if (field.cpp_type() == FieldDescriptor::CPPTYPE_MESSAGE) return field.message_type()->full_name();
  return field.type_name();
}

}  // namespace rpc
