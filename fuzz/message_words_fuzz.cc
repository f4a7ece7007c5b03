// Words of the menu "rpc" into messages: any words for a message with a field of every kind.
//
// The input is lines, one word each.
#include <google/protobuf/stubs/logging.h>
#include <google/protobuf/util/message_differencer.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "example/rpc/messages/field_value.h"
#include "example/rpc/messages/message_completion.h"
#include "example/rpc/messages/message_fields.h"
#include "example/rpc/messages/message_words.h"
#include "example/rpc/messages/word_refusal.h"
#include "example/rpc/testing/rich_message.h"
#include "fuzz/fuzz.h"

namespace {

using google::protobuf::Message;
using google::protobuf::util::MessageDifferencer;

const rpc::RichMessage& Rich() {
  static const auto& rich = *new rpc::RichMessage;
  return rich;
}

// Returns whether the word was taken. A refusal names what is wrong.
bool Add(rpc::MessageWords& words, const std::string& word) {
  try {
    words.Add(word);
    return true;
  } catch (const rpc::WordRefusal& refusal) {
    FUZZ_CHECK(refusal.what()[0] != '\0', fuzz::Detail(word));
    FUZZ_CHECK(refusal.Word() != nullptr && *refusal.Word() == word, fuzz::Detail(word));
    return false;
  }
}

bool IsComplete(const rpc::MessageWords& words) {
  try {
    words.CheckComplete("message");
    return true;
  } catch (const rpc::WordRefusal&) {
    return false;
  }
}

// What was read comes back from bytes and, where it is text, from JSON; its lines, typed as words, make it again.
void CheckMessage(const Message& message) {
  const std::unique_ptr<Message> again(message.New());
  FUZZ_CHECK(again->ParseFromString(message.SerializeAsString()), message.ShortDebugString());
  FUZZ_CHECK(MessageDifferencer::Equals(message, *again) || message.SerializeAsString() == again->SerializeAsString(),
             message.ShortDebugString());
  const std::string json = rpc::JsonOf(message);
  FUZZ_CHECK(json.starts_with('{') && json.ends_with('}') && json.find('\n') == std::string::npos, fuzz::Detail(json));
  rpc::BlockOf(rpc::FieldsOf(message), " ");
  rpc::VerdictOf(message);
}

std::string Word(const std::string& path, const std::string& value) { return path + "=" + value; }

// A scalar's printed value is read as the same value.
void CheckLines(const Message& message) {
  for (const auto& [path, value] : rpc::FieldsOf(message)) {
    if (path.find('.') != std::string::npos) continue;  // a map's key may have dots
    const auto* field = message.GetDescriptor()->FindFieldByName(path);
    FUZZ_CHECK(field != nullptr, fuzz::Detail(path));
    const std::unique_ptr<Message> one(message.New());
    try {
      rpc::PutValue(*one, *field, rpc::ReadValue(*field, value), std::nullopt);
    } catch (const std::invalid_argument& error) {
      FUZZ_CHECK(false, fuzz::Detail(Word(path, value) + ": " + error.what()));
    }
    bool found = false;
    for (const auto& [name, text] : rpc::FieldsOf(*one)) found = found || (name == path && text == value);
    FUZZ_CHECK(found, fuzz::Detail(Word(path, value)));
  }
}

// Each candidate begins as the word that it completes, and completes to itself.
void CheckCompletion(const std::vector<std::string>& words) {
  const std::vector<std::string> given(words.begin(), words.end() - 1);
  for (const auto& candidate : rpc::CompleteField(Rich().Type(), given, words.back())) {
    FUZZ_CHECK(candidate.word.starts_with(words.back()), fuzz::Detail(candidate.word));
    if (!candidate.is_complete) continue;
    const std::unique_ptr<Message> message = Rich().New();
    rpc::MessageWords filler(*message);
    const auto again = rpc::CompleteField(Rich().Type(), given, candidate.word);
    FUZZ_CHECK(std::any_of(again.begin(), again.end(), [&](const auto& other) { return other.word == candidate.word; }),
               fuzz::Detail(candidate.word));
  }
  FUZZ_CHECK(rpc::FieldHint(Rich().Type(), words).find('\n') == std::string::npos, "");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  google::protobuf::SetLogHandler(nullptr);  // else each invalid UTF-8 string is reported on standard error
  fuzz::Input input(data, size);
  const std::unique_ptr<Message> message = Rich().New();
  rpc::MessageWords filler(*message);
  std::vector<std::string> words;
  while (!input.Empty() && words.size() < 50) {
    words.emplace_back(input.Line());
    CheckCompletion(words);
    Add(filler, words.back());
  }
  if (!IsComplete(filler)) return 0;
  CheckMessage(*message);
  CheckLines(*message);
  return 0;
}
