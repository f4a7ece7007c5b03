#include "example/rpc/messages/message_completion.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstddef>
#include <functional>
#include <optional>
#include <string_view>
#include <system_error>
#include <utility>

#include "example/rpc/messages/field_value.h"
#include "example/rpc/messages/message_words.h"

namespace rpc {
namespace {

using google::protobuf::Descriptor;
using google::protobuf::FieldDescriptor;
using Words = std::vector<std::string>;

bool IsMessage(const FieldDescriptor& field) { return field.cpp_type() == FieldDescriptor::CPPTYPE_MESSAGE; }

std::string LowerCase(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

Candidates Beginning(const Words& words, const std::string& typed) {
  Candidates found;
  for (const auto& word : words) {
    if (word.starts_with(typed)) found.push_back({word, true});
  }
  return found;
}

// --- fields

// What stands in front of "=" in a word; none for one without it.
std::optional<std::string> PathOf(const std::string& word) {
  const std::size_t equals = word.find('=');
  if (equals == std::string::npos || word.starts_with('{')) return std::nullopt;
  return word.substr(0, equals);
}

bool IsSet(const Words& given, std::string_view path) {
  return std::any_of(given.begin(), given.end(), [&](const auto& word) { return PathOf(word) == path; });
}

bool AnyBelow(const Words& given, const std::string& path) {
  return std::any_of(given.begin(), given.end(), [&](const auto& word) { return word.starts_with(path + "."); });
}

// Where a path leads: into a type, whose field comes next, or behind a field that is a list or a map, where an index or
// a key comes next.
struct Place {
  const Descriptor* type = nullptr;
  const FieldDescriptor* container = nullptr;
};

std::optional<Place> Enter(const Place& place, std::string_view part) {
  const FieldDescriptor* field = place.container;
  if (field != nullptr) {
    const FieldDescriptor* element = field->is_map() ? field->message_type()->map_value() : field;
    if (!IsMessage(*element)) return std::nullopt;
    return Place{element->message_type(), nullptr};
  }
  field = FieldNamed(*place.type, part);
  if (field == nullptr) return std::nullopt;
  if (field->is_repeated()) return Place{nullptr, field};
  if (!IsMessage(*field)) return std::nullopt;
  return Place{field->message_type(), nullptr};
}

// `path` ends behind its last dot, or is empty.
std::optional<Place> Follow(const Descriptor& type, std::string_view path) {
  std::optional<Place> place = Place{&type, nullptr};
  while (place && !path.empty()) {
    const std::size_t dot = path.find('.');
    place = Enter(*place, path.substr(0, dot));
    path.remove_prefix(dot + 1);
  }
  return place;
}

std::size_t BehindLastDot(const std::string& path) {
  const std::size_t dot = path.rfind('.');
  return dot == std::string::npos ? 0 : dot + 1;
}

// The field that a whole path names, also by an element of it.
const FieldDescriptor* FieldAt(const Descriptor& type, const std::string& path) {
  const std::size_t last = BehindLastDot(path);
  const auto place = Follow(type, std::string_view(path).substr(0, last));
  if (!place) return nullptr;
  if (place->container == nullptr) return FieldNamed(*place->type, path.substr(last));
  return place->container->is_map() ? place->container->message_type()->map_value() : place->container;
}

Candidates CompleteValue(const FieldDescriptor& field, const std::string& before, const std::string& typed) {
  Words values;
  if (field.cpp_type() == FieldDescriptor::CPPTYPE_BOOL) values = {before + "true", before + "false"};
  if (field.cpp_type() == FieldDescriptor::CPPTYPE_ENUM) {
    for (int i = 0; i < field.enum_type()->value_count(); ++i) {
      values.push_back(before + field.enum_type()->value(i)->name());
    }
  }
  return Beginning(values, typed);
}

// The elements that words have named, and the next one.
Candidates CompleteIndex(const FieldDescriptor& list, const Words& given, const std::string& before,
                         const std::string& typed) {
  int next = 0;
  for (const auto& word : given) {
    if (!word.starts_with(before)) continue;
    int index = 0;
    const auto [end, error] = std::from_chars(word.data() + before.size(), word.data() + word.size(), index);
    if (error == std::errc() && index >= next && index < 1000) next = index + 1;
  }
  Candidates found;
  for (int index = 0; index <= next; ++index) {
    const std::string word = before + std::to_string(index) + (IsMessage(list) ? "." : "=");
    if (word.starts_with(typed)) found.push_back({word, false});
  }
  return found;
}

// --- hints

std::string ValuesText(const FieldDescriptor& field) {
  constexpr std::size_t kMostShown = 60;
  if (field.cpp_type() == FieldDescriptor::CPPTYPE_BOOL) return "true|false";
  if (field.cpp_type() != FieldDescriptor::CPPTYPE_ENUM) return TypeText(field);
  std::string text;
  for (int i = 0; i < field.enum_type()->value_count() && text.size() <= kMostShown; ++i) {
    text += (i == 0 ? "" : "|") + field.enum_type()->value(i)->name();
  }
  return text.size() <= kMostShown ? text : TypeText(field);
}

std::string ValueHint(const FieldDescriptor& field) {
  return IsMessage(field)
             ? "{\"" +
                   (field.message_type()->field_count() > 0 ? field.message_type()->field(0)->name() : std::string()) +
                   "\": ...}"
             : "<" + ValuesText(field) + ">";
}

// Finds the first field that no word has set, from `type` on, whose path is `prefix`. It looks at so many fields at
// most.
class NextField {
 public:
  explicit NextField(const Words& given) : given_(given) {}

  std::optional<std::string> In(const std::string& prefix, const Descriptor& type) {
    above_.push_back(&type);
    std::optional<std::string> found;
    for (int i = 0; i < type.field_count() && !found && looks_ < kMostLooks; ++i) {
      found = At(prefix + type.field(i)->name(), *type.field(i));
    }
    above_.pop_back();
    return found;
  }

 private:
  static constexpr int kMostLooks = 500;

  std::optional<std::string> At(const std::string& path, const FieldDescriptor& field) {
    ++looks_;
    if (IsSet(given_, path)) return std::nullopt;
    if (field.is_map()) {
      if (AnyBelow(given_, path)) return std::nullopt;
      return path + ".<key>=" + ValueHint(*field.message_type()->map_value());
    }
    if (!IsMessage(field)) {
      if (field.is_repeated() && AnyBelow(given_, path)) return std::nullopt;
      return path + "=" + ValueHint(field);
    }
    const Descriptor& type = *field.message_type();
    if (std::find(above_.begin(), above_.end(), &type) != above_.end()) return std::nullopt;
    return In(path + (field.is_repeated() ? ".0." : "."), type);
  }

  const Words& given_;
  std::vector<const Descriptor*> above_;
  int looks_ = 0;
};

}  // namespace

Candidates CompleteType(const MessageCatalog& catalog, const std::string& typed) {
  Words short_names, full_names;
  for (const Descriptor* type : catalog.Types()) {
    short_names.push_back(catalog.ShortName(*type));
    full_names.push_back(type->full_name());
  }
  Candidates found = Beginning(short_names, typed);
  if (found.empty()) found = Beginning(full_names, typed);
  if (!found.empty()) return found;
  for (const auto& name : short_names) {
    if (LowerCase(name).starts_with(LowerCase(typed))) found.push_back({name, true});
  }
  return found;
}

Candidates CompleteField(const Descriptor& type, const Words& given, const std::string& typed) {
  if (const auto path = PathOf(typed)) {
    const FieldDescriptor* field = FieldAt(type, *path);
    return field == nullptr ? Candidates() : CompleteValue(*field, *path + "=", typed);
  }
  const std::string before = typed.substr(0, BehindLastDot(typed));
  const auto place = Follow(type, before);
  if (!place) return {};
  if (place->container != nullptr) {
    return place->container->is_map() ? Candidates() : CompleteIndex(*place->container, given, before, typed);
  }
  Candidates found;
  for (int i = 0; i < place->type->field_count(); ++i) {
    const FieldDescriptor& field = *place->type->field(i);
    const std::string path = before + field.name();
    if (!path.starts_with(typed) || (!field.is_repeated() && IsSet(given, path))) continue;
    found.push_back({path + (IsMessage(field) ? "." : "="), false});
  }
  return found;
}

std::string FieldHint(const Descriptor& type, const Words& words) {
  if (words.empty()) return {};
  const std::string& last = words.back();
  const auto path = PathOf(last);
  const FieldDescriptor* field = FieldAt(type, path ? *path : last);
  if (path && path->size() + 1 == last.size()) return field == nullptr ? "" : ValueHint(*field);
  if (!last.empty() && !path) return field == nullptr || IsMessage(*field) ? "" : "=" + ValueHint(*field);
  if (std::any_of(words.begin(), words.end(), [](const auto& word) { return word.starts_with('{'); })) return {};
  const auto next = NextField(words).In({}, type);
  return next ? (last.empty() ? "" : " ") + *next : "";
}

}  // namespace rpc
