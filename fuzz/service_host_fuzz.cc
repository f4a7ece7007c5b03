// Requests of strangers to the tool's service host: any google.protobuf.Any, as bytes off the wire or put together.
// Linked so that the host's server is not made: its hook is called here, as the server would.
#include <google/protobuf/any.pb.h>
#include <google/protobuf/stubs/logging.h>

#include <memory>
#include <stdexcept>
#include <vector>

#include "common/v1/keyvalue.pb.h"
#include "common/v1/status.pb.h"
#include "core/rpc_service.h"
#include "example/rpcservice/server.h"
#include "example/v1/rpc_test.pb.h"
#include "fuzz/fuzz.h"
#include "klbase/log_sink.h"
#include "klbase/options.h"
#include "klrpc/api_server.h"

namespace {

using common::v1::KeyValueList;
using common::v1::Status;
using example::v1::ExampleRPCRequest;
using fuzz::Input;
using google::protobuf::Any;

klrpc::APIServer::UnaryHook hook;  // the host's

}  // namespace

// Stands for klrpc::APIServer::Create, whose name the linker changes to this.
std::unique_ptr<klrpc::APIServer>
TakeHook(std::unique_ptr<klrpc::APIServerOptions> options, std::unique_ptr<klrpc::APIServer::UnaryHookSets> hooks) __asm__(
    "__wrap__ZN5klrpc9APIServer6CreateESt10unique_ptrINS_16APIServerOptionsESt14default_deleteIS2_EES1_INS0_"
    "13UnaryHookSetsES3_IS6_EE") __attribute__((used));
std::unique_ptr<klrpc::APIServer> TakeHook(std::unique_ptr<klrpc::APIServerOptions>,
                                           std::unique_ptr<klrpc::APIServer::UnaryHookSets> hooks) {
  hook = *hooks->unary;
  return nullptr;
}

namespace {

// A service beside the tool's own: sends the request back, refuses, or throws, as the request's first key says.
class EchoService : public core::RpcServiceImpl<KeyValueList, KeyValueList> {
 public:
  static std::string Wish(const KeyValueList& request) {
    return request.key_values_size() > 0 ? request.key_values(0).key() : "";
  }
  bool HandleRequest(const KeyValueList& request, KeyValueList& reply) override {
    if (Wish(request) == "throw") throw std::runtime_error("as asked");
    reply = request;
    return Wish(request) != "refuse";
  }
};
const std::string ServiceID = "echo";
const core::RegisteredRpcServiceFactory<EchoService, &ServiceID> registration;

const std::string kPrefix = "type.googleapis.com/";
const std::string kExampleUrl = kPrefix + "example.v1.ExampleRPCRequest";
const std::string kEchoUrl = kPrefix + "common.v1.KeyValueList";

std::vector<std::string> records;  // of all levels

void StartHost() {
  static RpcServer& server = *[] {
    kOptionLogLevel = 10;
    auto* made = new RpcServer;
    made->StartRpcServer();
    google::protobuf::SetLogHandler(nullptr);  // else each invalid UTF-8 string is reported on standard error
    KlLogSetObserver([](const KlLogRecord& record) {
      records.push_back(std::to_string(record.level) + " " + std::string(record.text));
    });
    return made;
  }();
  static_cast<void>(server);
}

// --- the expected answer to a request

struct Outcome {
  bool taken = false;
  bool thrown = false;
  Any reply;
  std::vector<std::string> records;
};

// As it stands in a record: up to the first NUL.
std::string Url(const Any& request) { return request.type_url().c_str(); }

Outcome NotUnpacked(const Any& request) {
  Outcome outcome;
  Status status;
  status.set_code(500);
  status.set_message("unpack incoming request failed.");
  outcome.reply.set_type_url(kPrefix + "common.v1.Status");
  outcome.reply.set_value(status.SerializeAsString());
  outcome.records = {"10 begin...", "50 unpack incoming request failed.",
                     "50 process service for url(" + Url(request) + ") request failed"};
  return outcome;
}

Outcome ExpectedOfExample(const Any& request) {
  if (!ExampleRPCRequest().ParseFromString(request.value())) return NotUnpacked(request);
  Outcome outcome;
  outcome.taken = true;
  outcome.reply.set_type_url(kPrefix + "example.v1.ExampleRPCReply");
  outcome.reply.set_value(std::string("\x0a\x00", 2));  // a status that is there and holds defaults only
  outcome.records = {"10 begin...", "10 end(ret:success)..."};
  return outcome;
}

Outcome ExpectedOfEcho(const Any& request) {
  KeyValueList list;
  if (!list.ParseFromString(request.value())) return NotUnpacked(request);
  Outcome outcome;
  outcome.records = {"10 begin..."};
  outcome.thrown = EchoService::Wish(list) == "throw";
  if (outcome.thrown) return outcome;
  outcome.taken = EchoService::Wish(list) != "refuse";
  outcome.reply.set_type_url(kEchoUrl);
  outcome.reply.set_value(list.SerializeAsString());
  if (!outcome.taken) outcome.records.push_back("50 handle request failed.");
  outcome.records.push_back(outcome.taken ? "10 end(ret:success)..." : "10 end(ret:failed)...");
  if (!outcome.taken) outcome.records.push_back("50 process service for url(" + kEchoUrl + ") request failed");
  return outcome;
}

Outcome ExpectedOutcome(const Any& request) {
  if (request.type_url() == kExampleUrl) return ExpectedOfExample(request);
  if (request.type_url() == kEchoUrl) return ExpectedOfEcho(request);
  Outcome outcome;
  outcome.records = {"50 not found any service for url(" + Url(request) + ")"};
  return outcome;
}

void CheckRequest(const Any& request) {
  const std::string before = request.SerializeAsString();
  const Outcome expected = ExpectedOutcome(request);
  records.clear();
  Any reply;
  bool taken = false;
  bool thrown = false;
  try {
    taken = hook(request, reply);
  } catch (const std::runtime_error&) {
    thrown = true;
  }
  FUZZ_CHECK_EQUAL(taken, expected.taken);
  FUZZ_CHECK_EQUAL(thrown, expected.thrown);
  FUZZ_CHECK_EQUAL(reply.type_url(), expected.reply.type_url());
  FUZZ_CHECK_EQUAL(reply.value(), expected.reply.value());
  FUZZ_CHECK_EQUAL(records, expected.records);
  FUZZ_CHECK_EQUAL(request.SerializeAsString(), before);
}

// --- the input

std::string TakeUrl(Input& input) {
  const std::string urls[] = {kExampleUrl, kEchoUrl, kExampleUrl.substr(kPrefix.size()), ""};
  const int choice = input.Number(0, 5);
  if (choice < 4) return urls[choice];
  std::string url(input.Line());
  if (choice == 5) url = kPrefix + url;
  return url;
}

std::string TakeValue(Input& input) {
  switch (input.Number(0, 2)) {
    case 0: {
      ExampleRPCRequest request;
      request.set_request_auth(std::string(input.Line()));
      request.set_count(input.Byte());
      return request.SerializePartialAsString() + std::string(input.Line());
    }
    case 1: {
      KeyValueList list;
      for (int pairs = input.Number(0, 3); pairs > 0; --pairs) {
        auto& pair = *list.add_key_values();
        pair.set_key(std::string(input.Line()));
        pair.set_value(std::string(input.Line()));
      }
      return list.SerializePartialAsString() + std::string(input.Line());
    }
    default:
      return std::string(input.Line());
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  StartHost();
  Input input(data, size);
  Any request;
  if (input.Number(0, 3) == 3) {
    if (!request.ParseFromString(std::string(input.Rest()))) return 0;  // klrpc refuses it before any hook
    CheckRequest(request);
    return 0;
  }
  for (int requests = 0; requests < 8 && !input.Empty(); ++requests) {
    request.set_type_url(TakeUrl(input));
    request.set_value(TakeValue(input));
    CheckRequest(request);
  }
  return 0;
}
