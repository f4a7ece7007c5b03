// The text that an operator reads for any answer of a daemon: lines typed in the menus of the tool, the requests that
// go out, any replies, and the text on the operator's stream.
//
// The program's own klrpc::APIClient::Call stands before that of the shared library, so that no daemon is needed.
#include <google/protobuf/stubs/logging.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "apisdk/apisdk.h"
#include "cli/menu.h"
#include "common/v1/status.pb.h"
#include "encoder/v1/encoder.pb.h"
#include "example/apisdk/encd/encd_cil.h"
#include "example/apisdk/playd/playd_cil.h"
#include "fuzz/fuzz.h"
#include "klrpc/api_client.h"
#include "platform/testing/fake_session.h"
#include "player/v1/player.pb.h"

namespace {

using fuzz::Input;
using google::protobuf::Any;

bool answered = false;  // whether the daemon is there
Any answer;
std::vector<std::string> requests;  // the types of those that went out

}  // namespace

bool klrpc::APIClient::Call(const google::protobuf::Message& request, Any& reply) {
  requests.push_back(request.GetTypeName());
  if (answered) reply = answer;
  return answered;
}

namespace {

// --- the menus

struct Menus {
  Menus() {
    apis::ApiSdk::instance_.LoadApi({apis::ApiSdk::kPlayd, apis::ApiSdk::kEncd});
    encd = std::make_unique<EncdCli>(&root);
    playd = std::make_unique<PlaydCli>(&root);
    google::protobuf::SetLogHandler(nullptr);  // else each invalid UTF-8 string is reported on standard error
  }
  cli::Menu root{"main"};
  std::unique_ptr<EncdCli> encd;
  std::unique_ptr<PlaydCli> playd;
};

// --- the expected text

enum class Kind { kResult, kTiming, kSeek, kMedia };
struct Command {
  const char* name;
  std::size_t words;  // behind the name
  Kind kind;
};
constexpr Command kCommands[] = {
    {"LiveSystemInit", 1, Kind::kResult},         {"LiveSystemUnInit", 1, Kind::kResult},
    {"SetIntputTiming", 2, Kind::kTiming},        {"SetOutputTiming", 2, Kind::kTiming},
    {"CreateUplayer", 1, Kind::kResult},          {"DeleteUplayer", 1, Kind::kResult},
    {"OpenMediaOfUplayer", 13, Kind::kResult},    {"CloseMediaOfUplayer", 2, Kind::kResult},
    {"SwitchSourceOfUplayer", 13, Kind::kResult}, {"GetMediaInfoOfUplayer", 1, Kind::kMedia},
    {"GetSeekOfUplayer", 1, Kind::kSeek},         {"SetPauseOfUplayer", 2, Kind::kResult},
    {"SetSeekOfUplayer", 2, Kind::kResult},       {"SetSpeedOfUplayer", 2, Kind::kResult},
    {"SetVolumeOfUplayer", 2, Kind::kResult},
};

// The answer as a Message: defaults when it has another type, and the fields before the error when it doesn't parse.
template <typename Message>
Message AnswerAs() {
  Message message;
  const std::string& url = answer.type_url();
  const auto slash = url.rfind('/');
  const bool fits = slash != std::string::npos && url.substr(slash + 1) == message.GetTypeName();
  if (answered && fits) static_cast<void>(message.ParseFromString(answer.value()));
  return message;
}

std::string Header(const std::string& command) { return "**************" + command + "**********\n"; }

std::string ResultLines(const std::string& id, bool result, const std::string& information, std::size_t width) {
  const auto line = [width](std::string label, const std::string& value) {
    label.resize(width, ' ');
    return label + ":" + value + "\n";
  };
  return line("id", id) + line("result", result ? "1" : "0") + line("error_code", "0") +
         line("error_infor", information);
}

std::string ResultText(const Command& command, const std::string& id) {
  const auto reply = AnswerAs<lp::v1::UniversalResp>();
  return Header(command.name) + ResultLines(answered ? reply.unique_id() : id, reply.result(), "", 11);
}

std::string TimingText(const Command& command, const std::string& id, const std::string& type) {
  const std::string first = "id         :" + id + "\n";
  if (std::strtol(type.c_str(), nullptr, 10) < 0 || std::strtol(type.c_str(), nullptr, 10) > 2) {
    return first + "parameter failed.\n";
  }
  const auto reply = AnswerAs<lp::v1::UniversalResp>();
  return first + Header(command.name) + ResultLines("xxx", reply.result(), "", 11);
}

std::string SeekText(const Command& command, const std::string& id) {
  const auto reply = AnswerAs<lp::v1::GetSeekOfUplayerResp>();
  std::ostringstream out;
  out << Header(command.name)
      << ResultLines(answered ? reply.result().unique_id() : id, reply.result().result(),
                     answered ? "" : "get seek of uplayer fail", 17)
      << "info_id          :" << reply.unique_id() << "\ninfo_seek_ms     :" << reply.seek_ms()
      << "\ninfo_duration_ms :" << reply.duration_ms() << "\n";
  return out.str();
}

std::string MediaText(const Command& command, const std::string& id) {
  const auto reply = AnswerAs<lp::v1::GetMediaInfoOfUplayerResp>();
  std::ostringstream out;
  out << Header(command.name)
      << ResultLines(answered ? reply.result().unique_id() : id, reply.result().result(), "", 17)
      << "info_id          :" << reply.unique_id() << "\ninfo_url         :" << reply.url()
      << "\ninfo_width       :" << reply.width() << "\ninfo_heigh       :" << reply.heigh()
      << "\ninfo_duration_ms :" << reply.duration_ms() << "\n";
  return out.str();
}

std::string ExpectedText(const Command& command, const std::vector<std::string>& words) {
  switch (command.kind) {
    case Kind::kResult:
      return ResultText(command, words[2]);
    case Kind::kTiming:
      return TimingText(command, words[2], words[3]);
    case Kind::kSeek:
      return SeekText(command, words[2]);
    case Kind::kMedia:
      return MediaText(command, words[2]);
  }
  return "";
}

// --- the input

void TakeMessage(Input& input, lp::v1::UniversalResp& result) {
  result.set_unique_id(std::string(input.Line()));
  result.set_result(input.Flag());
  result.set_error_code(input.Byte());
  result.set_error_infor(std::string(input.Line()));
}

std::string TakeWord(Input& input) {
  std::string word(input.Line());
  std::erase_if(word, [](char c) { return std::string_view(" \t\n\v\f\r").find(c) != std::string_view::npos; });
  return word.empty() ? "0" : word;
}

void TakeAnswer(Input& input) {
  answered = input.Number(0, 7) != 7;
  answer.Clear();
  const auto numbers = static_cast<std::uint32_t>(input.Byte()) << (input.Byte() % 25);
  switch (input.Number(0, 5)) {
    case 0: {
      lp::v1::UniversalResp result;
      TakeMessage(input, result);
      answer.PackFrom(result);
      break;
    }
    case 1: {
      lp::v1::GetSeekOfUplayerResp seek;
      seek.set_unique_id(std::string(input.Line()));
      seek.set_seek_ms(numbers);
      seek.set_duration_ms(~numbers);
      if (input.Flag()) TakeMessage(input, *seek.mutable_result());
      answer.PackFrom(seek);
      break;
    }
    case 2: {
      lp::v1::GetMediaInfoOfUplayerResp media;
      media.set_unique_id(std::string(input.Line()));
      media.set_url(std::string(input.Line()));
      media.set_width(numbers);
      media.set_heigh(~numbers);
      media.set_duration_ms(numbers / 2);
      if (input.Flag()) TakeMessage(input, *media.mutable_result());
      answer.PackFrom(media);
      break;
    }
    case 3: {
      common::v1::Status status;
      status.set_code(static_cast<std::int32_t>(numbers));
      status.set_message(std::string(input.Line()));
      answer.PackFrom(status);
      break;
    }
    case 4:
      answer.set_type_url("type.googleapis.com/" + std::string(input.Line()));
      break;
    default:
      answer.set_type_url(std::string(input.Line()));
      break;
  }
  const std::string_view behind = input.Line();
  if (!behind.empty()) answer.mutable_value()->append(behind);
}

// Sets `refused` when std::stoi or std::stof does not take a numeric word; nothing may be sent then.
std::string Run(vextest::FakeSession& session, const std::vector<std::string>& words, bool& refused) {
  try {
    FUZZ_CHECK(session.Run(words), "no command takes the words");
  } catch (const std::invalid_argument&) {
    refused = true;
  } catch (const std::out_of_range&) {
    refused = true;
  }
  return session.TakeText();
}

void CheckPlayer(cli::Menu& root, Input& input) {
  const Command& command = input.OneOf(kCommands);
  std::vector<std::string> words = {"playd", command.name};
  for (std::size_t i = 0; i < command.words; ++i) words.push_back(TakeWord(input));
  vextest::FakeSession session(root);
  bool refused = false;
  const std::string shown = Run(session, words, refused);
  if (refused) {
    FUZZ_CHECK_EQUAL(requests.size(), std::size_t{0});
    return;
  }
  const std::string expected = ExpectedText(command, words);
  FUZZ_CHECK_EQUAL(shown, expected);
  FUZZ_CHECK_EQUAL(requests.size(), std::size_t{expected.ends_with("parameter failed.\n") ? 0u : 1u});
}

void CheckEncoder(cli::Menu& root, Input& input) {
  vextest::FakeSession session(root);
  bool refused = false;
  const std::string shown = Run(session, {"encd", "SetQulity", TakeWord(input)}, refused);
  const auto status = AnswerAs<common::v1::Status>();
  FUZZ_CHECK(!refused, "");
  FUZZ_CHECK_EQUAL(requests, std::vector<std::string>{"encoder.v1.SetVideoQualityRequest"});
  FUZZ_CHECK_EQUAL(shown,
                   "code= " + std::to_string(answered ? status.code() : 500) + " result=" + status.message() + "\n");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Menus& menus = *new Menus;
  Input input(data, size);
  for (int commands = 0; commands < 8 && !input.Empty(); ++commands) {
    requests.clear();
    TakeAnswer(input);
    input.Number(0, 3) == 3 ? CheckEncoder(menus.root, input) : CheckPlayer(menus.root, input);
  }
  return 0;
}
