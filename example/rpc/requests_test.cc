// Every request of the schema, from words and from JSON, as a daemon gets it.
#include <gmock/gmock.h>
#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include <memory>
#include <string>
#include <vector>

#include "common/v1/status.pb.h"
#include "encoder/v1/encoder.pb.h"
#include "example/rpc/rpc_menu.h"
#include "example/rpc/testing/any_daemon.h"
#include "platform/testing/fake_session.h"
#include "player/v1/player.pb.h"

namespace rpc {
namespace {

using google::protobuf::Descriptor;
using google::protobuf::FieldDescriptor;
using google::protobuf::FileDescriptor;
using google::protobuf::Message;
using google::protobuf::MessageFactory;
using google::protobuf::Reflection;

bool IsRequest(const Descriptor& type) {
  const std::string& name = type.name();
  return name.ends_with("Request") || name.ends_with("Req") || name == "SwitchRps";
}

std::vector<const Descriptor*> RequestsOf(const FileDescriptor& file) {
  std::vector<const Descriptor*> requests;
  for (int i = 0; i < file.message_type_count(); ++i) {
    if (IsRequest(*file.message_type(i))) requests.push_back(file.message_type(i));
  }
  return requests;
}

std::vector<const Descriptor*> EncodersRequests() {
  return RequestsOf(*encoder::v1::SetVideoQualityRequest::descriptor()->file());
}

std::vector<const Descriptor*> PlayersRequests() { return RequestsOf(*lp::v1::CreateUplayerReq::descriptor()->file()); }

// A message with every field set, and what an operator would type for it, made side by side: neither is derived from
// the other.
struct Filled {
  std::unique_ptr<Message> message;
  std::vector<std::string> words;
  std::string json;
};

class Filler {
 public:
  // Sets every field of `message` to a value of its own, and says in words and JSON what it set.
  std::string Fill(Message& message, const std::string& prefix, std::vector<std::string>& words) {
    std::string json;
    const Descriptor& type = *message.GetDescriptor();
    for (int i = 0; i < type.field_count(); ++i) {
      const FieldDescriptor& field = *type.field(i);
      json += (i == 0 ? "" : ", ") + ("\"" + field.name() + "\": ");
      json += field.is_repeated() ? Elements(message, field, prefix, words) : Single(message, field, prefix, words);
    }
    return "{" + json + "}";
  }

 private:
  // Two of them, with their indexes in the words.
  std::string Elements(Message& message, const FieldDescriptor& field, const std::string& prefix,
                       std::vector<std::string>& words) {
    EXPECT_EQ(field.cpp_type(), FieldDescriptor::CPPTYPE_MESSAGE);  // the schema has no other lists
    std::string json;
    for (int i = 0; i < 2; ++i) {
      Message& element = *message.GetReflection()->AddMessage(&message, &field);
      json += (i == 0 ? "" : ", ") + Fill(element, prefix + field.name() + "." + std::to_string(i) + ".", words);
    }
    return "[" + json + "]";
  }

  std::string Single(Message& message, const FieldDescriptor& field, const std::string& prefix,
                     std::vector<std::string>& words) {
    const Reflection& reflection = *message.GetReflection();
    const auto says = [&](const std::string& value, const std::string& json) {
      words.push_back(prefix + field.name() + "=" + value);
      return json;
    };
    const int number = ++last_;
    const std::string text = std::to_string(number);
    switch (field.cpp_type()) {
      case FieldDescriptor::CPPTYPE_MESSAGE:
        return Fill(*reflection.MutableMessage(&message, &field), prefix + field.name() + ".", words);
      case FieldDescriptor::CPPTYPE_STRING:
        reflection.SetString(&message, &field, "text " + text);
        return says("text " + text, "\"text " + text + "\"");
      case FieldDescriptor::CPPTYPE_BOOL:
        reflection.SetBool(&message, &field, true);
        return says("true", "true");
      case FieldDescriptor::CPPTYPE_ENUM: {
        const auto& value = *field.enum_type()->value(field.enum_type()->value_count() - 1);
        reflection.SetEnum(&message, &field, &value);
        return says(value.name(), "\"" + value.name() + "\"");
      }
      case FieldDescriptor::CPPTYPE_FLOAT:
        reflection.SetFloat(&message, &field, 0.3F);
        return says("0.3", "0.3");
      case FieldDescriptor::CPPTYPE_INT32:
        reflection.SetInt32(&message, &field, -number);
        return says("-" + text, "-" + text);
      case FieldDescriptor::CPPTYPE_UINT32:
        reflection.SetUInt32(&message, &field, 4294967295U - static_cast<unsigned>(number));
        return says(std::to_string(4294967295U - static_cast<unsigned>(number)),
                    std::to_string(4294967295U - static_cast<unsigned>(number)));
      case FieldDescriptor::CPPTYPE_UINT64:
        reflection.SetUInt64(&message, &field, 18446744073709551615U - static_cast<unsigned>(number));
        return says(std::to_string(18446744073709551615U - static_cast<unsigned>(number)),
                    '"' + std::to_string(18446744073709551615U - static_cast<unsigned>(number)) + '"');
      default:
        ADD_FAILURE() << "no value for " << field.full_name();
        return "null";
    }
  }

  int last_ = 0;
};

Filled FilledRequest(const Descriptor& type) {
  Filled filled{std::unique_ptr<Message>(MessageFactory::generated_factory()->GetPrototype(&type)->New()), {}, {}};
  filled.json = Filler().Fill(*filled.message, "", filled.words);
  return filled;
}

class RequestsTest : public testing::Test {
 protected:
  // Types the words behind the message's name; the daemon must get exactly `expected`.
  void ExpectSent(const Descriptor& type, const std::vector<std::string>& words, const Message& expected) {
    std::vector<std::string> line = {"call", type.name()};
    line.insert(line.end(), words.begin(), words.end());
    line.insert(line.end(), {"--to", daemon_.Address()});
    vextest::FakeSession session(*menu_);
    ASSERT_TRUE(session.Run(line));
    EXPECT_EQ(session.LastOutcome().status, cli::Status::kOk) << session.LastOutcome().reason;
    EXPECT_EQ(daemon_.LastRequest().type_url(), "type.googleapis.com/" + type.full_name());
    EXPECT_EQ(daemon_.LastRequest().value(), expected.SerializeAsString());
  }
  void ExpectSentFromWordsAndJson(const std::vector<const Descriptor*>& types) {
    for (const Descriptor* type : types) {
      SCOPED_TRACE(type->full_name());
      const Filled filled = FilledRequest(*type);
      EXPECT_NE(filled.message->ByteSizeLong(), 0U);
      ExpectSent(*type, filled.words, *filled.message);
      ExpectSent(*type, {filled.json}, *filled.message);
    }
  }

  State state_;
  const std::unique_ptr<cli::Menu> menu_ = MakeMenu(state_);
  AnyDaemon daemon_{[](const google::protobuf::Any&) { return AnyDaemon::Packed(common::v1::Status()); }};
};

TEST_F(RequestsTest, AllElevenOfTheEncoderArriveFromWordsAndFromJson) {
  EXPECT_EQ(EncodersRequests().size(), 11U);
  ExpectSentFromWordsAndJson(EncodersRequests());
}

TEST_F(RequestsTest, AllFortyTwoOfThePlayerArriveFromWordsAndFromJson) {
  EXPECT_EQ(PlayersRequests().size(), 42U);
  ExpectSentFromWordsAndJson(PlayersRequests());
}

}  // namespace
}  // namespace rpc
