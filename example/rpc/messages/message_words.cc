#include "example/rpc/messages/message_words.h"

#include <google/protobuf/util/json_util.h>

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <memory>
#include <optional>
#include <stdexcept>
#include <system_error>

#include "example/rpc/messages/field_value.h"
#include "example/rpc/messages/word_refusal.h"

namespace rpc {
namespace {

using google::protobuf::Descriptor;
using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::Reflection;

bool IsMessage(const FieldDescriptor& field) { return field.cpp_type() == FieldDescriptor::CPPTYPE_MESSAGE; }

std::string FirstLine(std::string_view text) {
  std::string line(text.substr(0, text.find('\n')));
  while (line.ends_with('.')) line.pop_back();
  return line;
}

// Reads JSON into a message like `like` and adds what it holds to that one; returns what is wrong with it, or "".
std::string MergeJson(Message& like, const std::string& json) {
  const std::unique_ptr<Message> read(like.New());
  const auto status = google::protobuf::util::JsonStringToMessage(json, read.get());
  if (!status.ok()) return FirstLine(std::string(status.message()));
  like.MergeFrom(*read);
  return {};
}

// Types with a JSON form of their own, such as a timestamp, are written without its quotes too.
bool IsWellKnown(const Descriptor& type) { return type.file()->package() == "google.protobuf"; }

std::string InQuotes(const std::string& text) {
  std::string quoted = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') quoted += '\\';
    quoted += c;
  }
  return quoted + '"';
}

}  // namespace

// What stands in front of the "=", part by part.
class MessageWords::Path {
 public:
  Path(const std::string& word, std::string_view text) : word_(word), text_(text) {
    if (std::count(text.begin(), text.end(), '.') >= static_cast<std::ptrdiff_t>(kDeepestPath)) {
      Refuse(word, "the path has more than " + std::to_string(kDeepestPath) + " parts; no message is nested so deep");
    }
  }

  const std::string& Word() const { return word_; }
  bool AtEnd() const { return next_ > text_.size(); }
  std::string_view Take() {
    const std::size_t end = std::min(text_.find('.', next_), text_.size());
    const std::string_view part = text_.substr(next_, end - next_);
    next_ = end + 1;
    return part;
  }
  // The parts that were taken: "media_info.url".
  std::string Taken() const { return std::string(text_.substr(0, next_ - 1)); }

 private:
  const std::string& word_;
  const std::string_view text_;
  std::size_t next_ = 0;
};

std::vector<std::string> FieldNames(const Descriptor& type) {
  std::vector<std::string> names;
  names.reserve(static_cast<std::size_t>(type.field_count()));
  for (int i = 0; i < type.field_count(); ++i) names.push_back(type.field(i)->name());
  return names;
}

const FieldDescriptor* FieldNamed(const Descriptor& type, std::string_view name) {
  if (const auto* field = type.FindFieldByName(std::string(name))) return field;
  for (int i = 0; i < type.field_count(); ++i) {
    if (type.field(i)->json_name() == name) return type.field(i);
  }
  return nullptr;
}

namespace {

const FieldDescriptor& FieldOf(const Descriptor& type, std::string_view name, const std::string& word) {
  if (const auto* field = FieldNamed(type, name)) return *field;
  const std::string typed(name);
  const std::vector<std::string> names = FieldNames(type);
  const std::string next = names.empty() ? "it has none" : "\"rpc describe " + type.full_name() + "\" shows them";
  Refuse(word, '"' + typed + "\" is not a field of " + type.full_name() + NearestOr(next, typed, names));
}

// Setting one member of a oneof takes the others away, silently.
void CheckOneof(const Message& message, const FieldDescriptor& field, const std::string& word) {
  const auto* oneof = field.real_containing_oneof();
  if (oneof == nullptr) return;
  const auto* there = message.GetReflection()->GetOneofFieldDescriptor(message, oneof);
  if (there == nullptr || there == &field) return;
  Refuse(word, field.name() + " and " + there->name() + " exclude each other: both are " + oneof->full_name() +
                   "; leave one out");
}

// The place of an element that is named by its index: one of those that are there, or the next one.
int IndexOf(const Message& message, const FieldDescriptor& field, std::string_view part, const std::string& word) {
  const int size = message.GetReflection()->FieldSize(message, &field);
  int index = 0;
  const auto [end, error] = std::from_chars(part.data(), part.data() + part.size(), index);
  const std::string form = field.name() + " is a list: write " + field.name() +
                           "=VALUE for a new element, or its index, 0 to " + std::to_string(size) + ", behind the dot";
  if (error != std::errc() || end != part.data() + part.size() || index < 0 || index > size) {
    Refuse(word, '"' + std::string(part) + "\" is not the index of an element; " + form);
  }
  return index;
}

Message& Element(Message& message, const FieldDescriptor& field, int index) {
  const Reflection& reflection = *message.GetReflection();
  if (index == reflection.FieldSize(message, &field)) return *reflection.AddMessage(&message, &field);
  return *reflection.MutableRepeatedMessage(&message, &field, index);
}

// The value's type decides on the form of the text, which `word` holds.
FieldValue ValueOf(const FieldDescriptor& field, const std::string& text, const std::string& word) {
  try {
    return ReadValue(field, text);
  } catch (const std::invalid_argument& error) {
    Refuse(word, error.what());
  }
}

// The map's entry with this key, made when it is not there. Keys compare as values: "1" and "0x1" are one.
Message& EntryOf(Message& message, const FieldDescriptor& field, std::string_view key, const std::string& word) {
  const Reflection& reflection = *message.GetReflection();
  const FieldDescriptor& key_field = *field.message_type()->map_key();
  const FieldValue value = ValueOf(key_field, std::string(key), word);
  const int size = reflection.FieldSize(message, &field);
  Message& entry = *reflection.AddMessage(&message, &field);
  PutValue(entry, key_field, value, std::nullopt);
  const std::string bytes = [&] {
    const std::unique_ptr<Message> alone(entry.New());
    PutValue(*alone, key_field, value, std::nullopt);
    return alone->SerializePartialAsString();
  }();
  for (int i = 0; i < size; ++i) {
    Message& other = *reflection.MutableRepeatedMessage(&message, &field, i);
    const std::unique_ptr<Message> alone(other.New());
    alone->CopyFrom(other);
    alone->GetReflection()->ClearField(alone.get(), field.message_type()->map_value());
    if (alone->SerializePartialAsString() != bytes) continue;
    reflection.RemoveLast(&message, &field);
    return *reflection.MutableRepeatedMessage(&message, &field, i);
  }
  return entry;
}

void SetMessage(Message& message, const FieldDescriptor& field, const std::string& value, const std::string& word) {
  std::string wrong = MergeJson(message, value);
  if (!wrong.empty() && IsWellKnown(*field.message_type())) wrong = MergeJson(message, InQuotes(value));
  if (wrong.empty()) return;
  const std::string& type = field.message_type()->full_name();
  if (value.starts_with('{')) Refuse(word, "the JSON is not a " + type + ": " + wrong);
  Refuse(word, field.name() + " is a message, " + type + ": set its fields, as in " + field.name() + "." +
                   (field.message_type()->field_count() > 0 ? field.message_type()->field(0)->name() : "FIELD") +
                   "=VALUE, or write {\"FIELD\": VALUE}");
}

// All elements or entries at once, by protobuf's own reader.
void AddAll(Message& message, const FieldDescriptor& field, const std::string& json, const std::string& word) {
  const std::string wrong = MergeJson(message, "{\"" + field.name() + "\": " + json + "}");
  if (wrong.empty()) return;
  Refuse(word,
         "the JSON is not " + std::string(field.is_map() ? "a map" : "a list") + " of " + field.name() + ": " + wrong);
}

bool IsInBrackets(const std::string& text, char open, char close) {
  return text.size() >= 2 && text.front() == open && text.back() == close;
}

}  // namespace

void MessageWords::Add(const std::string& word) { word.starts_with('{') ? AddJson(word) : AddField(word); }

void MessageWords::AddJson(const std::string& word) {
  const std::string wrong = MergeJson(message_, word);
  if (wrong.empty()) return;
  Refuse(word, "the JSON is not a " + message_.GetTypeName() + ": " + wrong);
}

void MessageWords::AddField(const std::string& word) {
  const std::size_t equals = word.find('=');
  if (equals == std::string::npos || equals == 0) {
    Refuse(word, '"' + word + "\" is not FIELD=VALUE" +
                     NearestOr("write a field's name in front of \"=\"", word, FieldNames(*message_.GetDescriptor())));
  }
  const std::string value = word.substr(equals + 1);
  Path path(word, std::string_view(word).substr(0, equals));
  Message* at = &message_;
  for (bool done = false; !done;) at = &Step(*at, path, value, done);
}

// Goes one field further. At the path's end the value is set.
Message& MessageWords::Step(Message& at, Path& path, const std::string& value, bool& done) {
  const FieldDescriptor& field = FieldOf(*at.GetDescriptor(), path.Take(), path.Word());
  CheckOneof(at, field, path.Word());
  done = path.AtEnd();
  if (done) {
    SetField(at, field, path, value);
    return at;
  }
  if (!IsMessage(field) && !field.is_repeated()) {
    Refuse(path.Word(),
           field.name() + " is " + TypeText(field) + " and has no fields; write " + path.Taken() + "=VALUE");
  }
  if (!field.is_repeated()) return *at.GetReflection()->MutableMessage(&at, &field);
  if (field.is_map()) {
    Message& entry = EntryOf(at, field, path.Take(), path.Word());
    const FieldDescriptor& value_field = *field.message_type()->map_value();
    done = path.AtEnd();
    if (done) SetField(entry, value_field, path, value);
    if (!done && !IsMessage(value_field)) {
      Refuse(path.Word(), "the values of " + field.name() + " are " + TypeText(value_field) +
                              " and have no fields; a key with dots is written as JSON, " + field.name() +
                              "={\"KEY\": VALUE}");
    }
    return done ? entry : *entry.GetReflection()->MutableMessage(&entry, &value_field);
  }
  const int index = IndexOf(at, field, path.Take(), path.Word());
  done = path.AtEnd();
  if (IsMessage(field)) {
    Message& element = Element(at, field, index);
    if (done) SetMessage(element, field, value, path.Word());
    return element;
  }
  if (!done) Refuse(path.Word(), "the elements of " + field.name() + " are " + TypeText(field) + " and have no fields");
  const bool is_new = index == at.GetReflection()->FieldSize(at, &field);
  PutValue(at, field, ValueOf(field, value, path.Word()), is_new ? std::nullopt : std::optional(index));
  return at;
}

void MessageWords::SetField(Message& at, const FieldDescriptor& field, const Path& path, const std::string& value) {
  const std::string& word = path.Word();
  if (field.is_map()) {
    if (IsInBrackets(value, '{', '}')) return AddAll(at, field, value, word);
    Refuse(word, field.name() + " is a map: write " + field.name() + ".KEY=VALUE, or {\"KEY\": VALUE}");
  }
  if (field.is_repeated() && IsInBrackets(value, '[', ']')) return AddAll(at, field, value, word);
  if (!field.is_repeated() && !set_.insert(path.Taken()).second) {
    Refuse(word, path.Taken() + " is set twice; leave one out");
  }
  const Reflection& reflection = *at.GetReflection();
  if (!IsMessage(field)) return PutValue(at, field, ValueOf(field, value, word), std::nullopt);
  Message& message =
      *(field.is_repeated() ? reflection.AddMessage(&at, &field) : reflection.MutableMessage(&at, &field));
  SetMessage(message, field, value, word);
}

void MessageWords::CheckComplete(const std::string& word) const {
  if (!message_.IsInitialized()) {
    Refuse(word, message_.GetTypeName() + " needs " + message_.InitializationErrorString() + " too");
  }
  const std::unique_ptr<Message> read(message_.New());
  if (read->ParseFromString(message_.SerializeAsString())) return;
  Refuse(word,
         "the message is nested deeper than " + std::to_string(kDeepestPath) + " messages; no daemon could read it");
}

}  // namespace rpc
