// Messages of the player daemon on their way to the operator: any topic and any payload, through publish/subscribe, the
// player API and the printers. The printed text is compared with the message as it was sent; a message that is
// not printed must have left its log record.
#include <google/protobuf/stubs/logging.h>

#include <iostream>
#include <memory>
#include <sstream>
#include <vector>

#include "apisdk/api_player.h"
#include "apisdk/pubsub_sdk.h"
#include "apisdk/rpc_player.h"
#include "core/rpc_url.h"
#include "example/rpcservice/pubsub/get_seek_resp.h"
#include "example/rpcservice/pubsub/result_report.h"
#include "fuzz/fuzz.h"
#include "klbase/log_sink.h"
#include "klbase/options.h"
#include "klrpc/api_client.h"
#include "player/v1/topics.h"

namespace {

using apis::RpcPlayer;
using fuzz::Input;

// A client without a server; this file emits its signals.
class Client : public klrpc::APIClient {
 public:
  Client() : APIClient(std::make_unique<klrpc::APIClientOptions>("unix-abstract:nobody", 1500, 200, 500, false)) {}
  bool PublishMessage(const klrpc::v1::PubsubMessage&) override { return true; }
  bool SubscribeTopics(const std::string& client_id, const std::vector<std::string>& topics) override {
    subscriptions.push_back(client_id);
    subscriptions.insert(subscriptions.end(), topics.begin(), topics.end());
    return true;
  }
  std::vector<std::string> subscriptions;
};

std::vector<std::string> records;  // of level 30 and above

// Subscribed once, as the modules are when they load.
Client& Subscribed() {
  static Client& client = *[] {
    kOptionLogLevel = 30;
    KlLogSetObserver([](const KlLogRecord& record) {
      records.push_back(std::to_string(record.level) + " " + std::string(record.text));
    });
    auto* made = new Client;
    const auto getter = [made]() -> klrpc::APIClient& { return *made; };
    apis::ApiPubSubSdk::instance_.InitPubSubPlayd(getter);
    const RpcPlayer player(getter);
    player.SubGetSeekOfUplayer(core::RpcUnixSocketUrl::rpc_url_example_, &PrintGetSeekResp);
    player.SubResultRepor(core::RpcUnixSocketUrl::rpc_url_example_, &PrintResultRepor);
    google::protobuf::SetLogHandler(nullptr);  // else each invalid UTF-8 string is reported on standard error
    return made;
  }();
  return client;
}

// --- the expected text of a payload, without the printers

constexpr char kRule[] = "***************************************\n";

std::string SeekBlock(const lp::v1::GetSeekOfUplayerResp& event) {
  std::ostringstream out;
  out << kRule << " layerId            :" << event.unique_id() << "\n seek_ms            :" << event.seek_ms()
      << "\n duration_ms        :" << event.duration_ms() << "\n result.id          :" << event.result().unique_id()
      << "\n result.result      :" << event.result().result()
      << "\n result.error_code  :" << event.result().error_code()
      << "\n result.error_infor :" << event.result().error_infor() << "\n";
  return out.str();
}

std::string ReportBlock(const lp::v1::ResultRepor& event) {
  std::ostringstream out;
  out << kRule << " layerId            :" << event.unique_id() << "\n url                :" << event.url()
      << "\n play_state         :" << event.play_state() << "\n";
  return out.str();
}

struct Outcome {
  std::string printed;
  std::vector<std::string> records;
};

template <typename Message>
Outcome OutcomeOf(const std::string& payload, std::string (*block)(const Message&)) {
  Message message;
  if (!message.ParseFromString(payload)) return {"", {"50 parse stream status message failed."}};
  return {block(message), {}};
}

Outcome ExpectedOutcome(const std::string& topic, const std::string& payload) {
  if (topic == lp::v1::kGetSeekOfUplayerTopic) return OutcomeOf<lp::v1::GetSeekOfUplayerResp>(payload, &SeekBlock);
  if (topic == lp::v1::kResultReporTopic) return OutcomeOf<lp::v1::ResultRepor>(payload, &ReportBlock);
  return {"", {"40 receive publish message but not found any topic func. will missing some message"}};
}

// --- the input

std::string TakeTopic(Input& input) {
  switch (input.Number(0, 2)) {
    case 0:
      return RpcPlayer::get_seek_of_uplayer_topic_;
    case 1:
      return RpcPlayer::result_repor_topic_;
    default:
      return std::string(input.Line());
  }
}

// A message of valid fields, or any bytes.
std::string TakePayload(Input& input) {
  const int kind = input.Number(0, 2);
  std::string text(input.Line());
  if (kind == 0) return text;
  lp::v1::GetSeekOfUplayerResp seek;
  lp::v1::ResultRepor report;
  const auto number = static_cast<std::uint32_t>(input.Byte()) << (input.Byte() % 25);
  if (kind == 1) {
    seek.set_unique_id(text);
    seek.set_seek_ms(number);
    seek.set_duration_ms(~number);
    if (input.Flag()) {
      seek.mutable_result()->set_unique_id(text);
      seek.mutable_result()->set_result(input.Flag());
      seek.mutable_result()->set_error_code(static_cast<std::int32_t>(number));
      seek.mutable_result()->set_error_infor(std::string(input.Line()));
    }
    return seek.SerializePartialAsString() + std::string(input.Line());
  }
  report.set_unique_id(text);
  report.set_url(std::string(input.Line()));
  report.set_play_state(static_cast<decltype(report.play_state())>(number));
  return report.SerializePartialAsString() + std::string(input.Line());
}

void CheckEvent(Client& client, Input& input) {
  klrpc::v1::PubsubMessage message;
  message.set_topic(TakeTopic(input));
  message.set_payload(TakePayload(input));
  const Outcome expected = ExpectedOutcome(message.topic(), message.payload());
  records.clear();
  std::ostringstream out;
  std::streambuf* const before = std::cout.rdbuf(out.rdbuf());
  client.SignalSubscribeMessage(message);
  std::cout.rdbuf(before);
  FUZZ_CHECK_EQUAL(out.str(), expected.printed);
  FUZZ_CHECK_EQUAL(records, expected.records);
}

// A stream that ended is subscribed again with its own id and topics; other states cause no request.
void CheckState(Client& client, Input& input) {
  klrpc::v1::SubscribeState state;
  state.set_state(input.Number(0, 3));
  state.set_client_id(std::string(input.Line()));
  std::vector<std::string> expected = {state.client_id()};
  for (int i = input.Number(0, 3); i > 0; --i) {
    state.add_topics(std::string(input.Line()));
    expected.push_back(state.topics(state.topics_size() - 1));
  }
  client.subscriptions.clear();
  records.clear();
  client.SignalSubscribeState(state);
  FUZZ_CHECK_EQUAL(client.subscriptions, state.state() == 2 ? expected : std::vector<std::string>());
  FUZZ_CHECK_EQUAL(records.size(), std::size_t{state.state() == 1 || state.state() == 2 ? 1u : 0u});
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Client& client = Subscribed();
  Input input(data, size);
  for (int events = 0; events < 8 && !input.Empty(); ++events) {
    input.Number(0, 7) == 7 ? CheckState(client, input) : CheckEvent(client, input);
  }
  return 0;
}
