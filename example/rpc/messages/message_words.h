// Messages from words: field=value, a.b=value, list=value list=value, labels.key=value, {json}.
#ifndef EXAMPLE_RPC_MESSAGES_MESSAGE_WORDS_H_
#define EXAMPLE_RPC_MESSAGES_MESSAGE_WORDS_H_

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include <cstddef>
#include <functional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace rpc {

// How deep messages may be nested in a path; protobuf's readers take no more.
inline constexpr std::size_t kDeepestPath = 100;

// Fills a message, which must outlive it, word by word. Not thread-safe.
//
// A word is a JSON object with fields of the message, or PATH=VALUE. A path is field names with dots between; behind a
// list's name stands an element's index, counted from 0, or nothing for a new element; behind a map's name stands a
// key. VALUE is as ReadValue() has it; for a message it is a JSON object, for a list also a JSON array of elements.
class MessageWords {
 public:
  explicit MessageWords(google::protobuf::Message& message) : message_(message) {}

  // Throws a WordRefusal, which may leave messages on the path empty but there.
  void Add(const std::string& word);
  // Throws a WordRefusal about `word` when a field that must be set is not, or the message is one that nobody could
  // read: nested too deep, which a path inside of JSON can make it.
  void CheckComplete(const std::string& word) const;

 private:
  class Path;

  void AddJson(const std::string& word);
  void AddField(const std::string& word);
  google::protobuf::Message& Step(google::protobuf::Message& at, Path& path, const std::string& value, bool& done);
  void SetField(google::protobuf::Message& at, const google::protobuf::FieldDescriptor& field, const Path& path,
                const std::string& value);

  google::protobuf::Message& message_;
  std::set<std::string, std::less<>> set_;  // the paths that words have set
};

// The names of a message's fields, in its order.
std::vector<std::string> FieldNames(const google::protobuf::Descriptor& type);
// A field by its name, or by the name that it has in JSON; null when there is none.
const google::protobuf::FieldDescriptor* FieldNamed(const google::protobuf::Descriptor& type, std::string_view name);

}  // namespace rpc

#endif  // EXAMPLE_RPC_MESSAGES_MESSAGE_WORDS_H_
