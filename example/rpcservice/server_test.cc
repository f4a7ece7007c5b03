// Runs in a network of its own: the tool serves at its fixed address, and reaches the player at its.
#include "example/rpcservice/server.h"

#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "apisdk/apisdk.h"
#include "common/v1/keyvalue.pb.h"
#include "common/v1/status.pb.h"
#include "core/rpc_url.h"
#include "example/rpcservice/example_rpcreq.h"
#include "klrpc/api_client.h"
#include "klrpc/v1/pubsub.pb.h"
#include "modules/core/testing/scripted_registry.h"
#include "platform/testing/log_capture.h"
#include "platform/testing/sync.h"
#include "sigslot/sigslot.h"

namespace {

using common::v1::KeyValue;
using common::v1::Status;
using example::v1::ExampleRPCReply;
using example::v1::ExampleRPCRequest;
using ScriptedRegistry = core::internal::ScriptedRegistry<core::RpcServiceFactory>;
using testing::ElementsAre;
using testing::IsEmpty;
using vextest::LogCapture;
using vextest::LogRecord;

constexpr char kServerFile[] = "example/rpcservice/server";
constexpr char kExampleUrl[] = "type.googleapis.com/example.v1.ExampleRPCRequest";
constexpr char kKeyValueUrl[] = "type.googleapis.com/common.v1.KeyValue";

LogRecord StartRecord(int level, const std::string& text) { return {level, kServerFile, "StartRpcServer", text}; }
LogRecord RequestRecord(int level, const std::string& text) {
  return {level, kServerFile, "ProcessProtoRequest", text};
}

template <typename Message>
google::protobuf::Any Packed(const Message& message) {
  google::protobuf::Any packed;
  packed.PackFrom(message);
  return packed;
}

// Answers KeyValue requests as it is told; the answer of one that is not told is its name.
class ScriptedService : public core::RpcServiceImpl<KeyValue, Status> {
 public:
  using Handler = std::function<bool(const KeyValue&, Status&)>;

  ScriptedService(Handler handler, std::function<void()> destroyed)
      : handler_(std::move(handler)), destroyed_(std::move(destroyed)) {}
  ~ScriptedService() override { destroyed_(); }

  bool HandleRequest(const KeyValue& request, Status& reply) override { return handler_(request, reply); }

 private:
  const Handler handler_;
  const std::function<void()> destroyed_;
};

core::RpcServiceFactory::Creator Scripted(
    ScriptedService::Handler handler, std::function<void()> destroyed = [] {}) {
  return [handler, destroyed] { return std::make_unique<ScriptedService>(handler, destroyed); };
}

core::RpcServiceFactory::Creator Named(
    const std::string& name, std::function<void()> destroyed = [] {}) {
  return Scripted(
      [name](const KeyValue&, Status& reply) {
        reply.set_message(name);
        return true;
      },
      std::move(destroyed));
}

core::RpcServiceFactory::Creator Example() {
  return [] { return std::make_unique<ExampleRpcReq>(); };
}

class RpcServerTest : public testing::Test {
 protected:
  RpcServerTest() {
    using Options = klrpc::APIClientOptions;
    client_ = std::make_unique<klrpc::APIClient>(std::make_unique<Options>(
        core::RpcUnixSocketUrl::rpc_url_example_, Options::reconnect_default_max_backoff_ms_,
        Options::reconnect_default_min_backoff_ms_, Options::reconnect_default_initial_backoff_ms_, false));
  }

  // Sends a request as another process would; nothing when no reply came.
  template <typename Reply>
  std::optional<Reply> Ask(const google::protobuf::Message& request) {
    google::protobuf::Any packed;
    Reply reply;
    if (!client_->Call(request, packed) || !packed.UnpackTo(&reply)) return std::nullopt;
    return reply;
  }
  std::string AskName() {
    const auto reply = Ask<Status>(KeyValue());
    return reply ? reply->message() : "(no reply)";
  }

  std::unique_ptr<klrpc::APIClient> client_;
};

TEST_F(RpcServerTest, AnswersTheExampleRequest) {
  RpcServer server;
  EXPECT_TRUE(server.StartRpcServer());
  ExampleRPCRequest request;
  request.set_request_auth("me");
  request.set_count(3);
  request.set_is_proto(true);
  const auto reply = Ask<ExampleRPCReply>(request);
  ASSERT_TRUE(reply.has_value());
  EXPECT_TRUE(reply->has_status());
  EXPECT_EQ(reply->status().code(), 0);
  EXPECT_EQ(reply->status().message(), "");
  const auto reply_to_empty = Ask<ExampleRPCReply>(ExampleRPCRequest());
  ASSERT_TRUE(reply_to_empty.has_value());
  EXPECT_EQ(reply_to_empty->SerializeAsString(), std::string("\x0a\x00", 2));
}

TEST_F(RpcServerTest, EachRequestIsTracedAtLevelTen) {
  RpcServer server;
  server.StartRpcServer();
  const LogCapture log(10);
  Ask<ExampleRPCReply>(ExampleRPCRequest());
  EXPECT_THAT(log.RecordsOf("modules/core"),
              ElementsAre(LogRecord{10, "modules/core/include/core/rpc_service", "Service", "begin..."},
                          LogRecord{10, "modules/core/include/core/rpc_service", "Service", "end(ret:success)..."}));
}

TEST_F(RpcServerTest, RegisteredServicesAreListedWhenDebugging) {
  RpcServer server;
  const LogCapture log(20, 1);
  server.StartRpcServer();
  EXPECT_THAT(log.RecordsOf(kServerFile), ElementsAre(StartRecord(20, "register service(example_rpcreq) request-type(" +
                                                                          std::string(kExampleUrl) + ")")));
}

TEST_F(RpcServerTest, StartSaysNothingOtherwise) {
  RpcServer server;
  const LogCapture log(10, 0);
  server.StartRpcServer();
  EXPECT_THAT(log.RecordsOf(kServerFile), IsEmpty());
}

TEST_F(RpcServerTest, StartLoadsBothApis) {
  RpcServer server;
  server.StartRpcServer();
  EXPECT_TRUE(apis::ApiSdk::instance_.HasApiModule(apis::ApiSdk::kPlayd));
  EXPECT_TRUE(apis::ApiSdk::instance_.HasApiModule(apis::ApiSdk::kEncd));
}

// Says whether the message that was published reached the server.
class Outcome : public sigslot::has_slots<> {
 public:
  explicit Outcome(klrpc::APIClient& client) { client.SignalPublishState.connect(this, &Outcome::OnState); }
  ~Outcome() override { disconnect_all(); }

  bool Ok() { return known_.Wait() && ok_; }

 private:
  void OnState(bool ok, const std::string&) {
    ok_ = ok;
    known_.Notify();
  }

  bool ok_ = false;
  vextest::Notification known_;
};

TEST_F(RpcServerTest, CarriesPublishSubscribeToo) {
  RpcServer server;
  server.StartRpcServer();
  Outcome outcome(*client_);
  klrpc::v1::PubsubMessage message;
  message.set_topic("any");
  EXPECT_TRUE(client_->PublishMessage(message));
  EXPECT_TRUE(outcome.Ok());
}

TEST_F(RpcServerTest, WithoutServicesItStartsAndAnswersNothing) {
  const ScriptedRegistry registry({});
  RpcServer server;
  EXPECT_TRUE(server.StartRpcServer());
  const LogCapture log(20, 2);
  google::protobuf::Any reply;
  EXPECT_FALSE(server.ProcessProtoRequest(Packed(ExampleRPCRequest()), reply));
  EXPECT_EQ(reply.ByteSizeLong(), 0u);
  EXPECT_THAT(log.RecordsOf(kServerFile),
              ElementsAre(RequestRecord(50, "not found any service for url(" + std::string(kExampleUrl) + ")")));
  EXPECT_FALSE(Ask<ExampleRPCReply>(ExampleRPCRequest()).has_value());
}

TEST_F(RpcServerTest, TypeUrlIsMatchedExactly) {
  RpcServer server;
  server.StartRpcServer();
  for (const std::string url :
       {"example.v1.ExampleRPCRequest", "/example.v1.ExampleRPCRequest", "example.org/example.v1.ExampleRPCRequest",
        "type.googleapis.com//example.v1.ExampleRPCRequest", "Type.googleapis.com/example.v1.ExampleRPCRequest", ""}) {
    google::protobuf::Any request = Packed(ExampleRPCRequest());
    request.set_type_url(url);
    google::protobuf::Any reply = Packed(KeyValue());
    const LogCapture log(20);
    EXPECT_FALSE(server.ProcessProtoRequest(request, reply));
    EXPECT_EQ(reply.type_url(), kKeyValueUrl);  // as it was
    EXPECT_THAT(log.Records(), ElementsAre(RequestRecord(50, "not found any service for url(" + url + ")")));
  }
}

TEST_F(RpcServerTest, UnparsablePayloadIsAnsweredWithAStatus) {
  RpcServer server;
  server.StartRpcServer();
  google::protobuf::Any request = Packed(ExampleRPCRequest());
  request.set_value("\xff\xff");
  google::protobuf::Any reply;
  const LogCapture log(20);
  EXPECT_FALSE(server.ProcessProtoRequest(request, reply));
  Status status;
  ASSERT_TRUE(reply.UnpackTo(&status));
  EXPECT_EQ(status.code(), 500);
  EXPECT_EQ(status.message(), "unpack incoming request failed.");
  EXPECT_THAT(
      log.Records(),
      ElementsAre(LogRecord{50, "modules/core/include/core/rpc_service", "Service", "unpack incoming request failed."},
                  RequestRecord(50, "process service for url(" + std::string(kExampleUrl) + ") request failed")));
}

TEST_F(RpcServerTest, ReplyOfAFailingServiceReachesTheCaller) {
  const ScriptedRegistry registry({{"refusing", Scripted([](const KeyValue&, Status& reply) {
                                      reply.set_code(7);
                                      return false;
                                    })}});
  RpcServer server;
  server.StartRpcServer();
  const LogCapture log(20);
  const auto reply = Ask<Status>(KeyValue());
  ASSERT_TRUE(reply.has_value());
  EXPECT_EQ(reply->code(), 7);
  EXPECT_THAT(
      log.RecordsOf("example"),
      ElementsAre(RequestRecord(50, "process service for url(" + std::string(kKeyValueUrl) + ") request failed")));
}

TEST_F(RpcServerTest, RequestUrlIsLoggedFromDebugLevelThree) {
  RpcServer server;
  server.StartRpcServer();
  for (const int debug : {2, 3}) {
    const LogCapture log(20, debug);
    Ask<ExampleRPCReply>(ExampleRPCRequest());
    if (debug == 2) {
      EXPECT_THAT(log.RecordsOf("example"), IsEmpty());
    } else {
      EXPECT_THAT(log.RecordsOf("example"),
                  ElementsAre(RequestRecord(20, "proto_msg url:" + std::string(kExampleUrl))));
    }
  }
}

TEST_F(RpcServerTest, OfTwoServicesForOneTypeTheFirstNameServes) {
  int destroyed = 0;
  const ScriptedRegistry registry({{"b", Named("b", [&destroyed] { ++destroyed; })}, {"a", Named("a")}});
  RpcServer server;
  const LogCapture log(10, 0);
  server.StartRpcServer();
  EXPECT_EQ(destroyed, 1);
  EXPECT_THAT(log.RecordsOf(kServerFile), IsEmpty());
  EXPECT_EQ(AskName(), "a");
}

TEST_F(RpcServerTest, UpperCaseNameSortsFirst) {
  const ScriptedRegistry registry({{"a", Named("a")}, {"B", Named("B")}});
  RpcServer server;
  server.StartRpcServer();
  EXPECT_EQ(AskName(), "B");
}

TEST_F(RpcServerTest, CreatorThatYieldsNothingIsSkipped) {
  const ScriptedRegistry registry({{"none", [] { return nullptr; }}, {"some", Named("some")}});
  RpcServer server;
  const LogCapture log(20);
  EXPECT_TRUE(server.StartRpcServer());
  EXPECT_THAT(log.RecordsOf(kServerFile), ElementsAre(StartRecord(40, "Load Service failed.")));
  EXPECT_EQ(AskName(), "some");
}

TEST_F(RpcServerTest, EmptyCreatorThrows) {
  const ScriptedRegistry registry({{"empty", nullptr}});
  RpcServer server;
  EXPECT_THROW(server.StartRpcServer(), std::bad_function_call);
}

TEST_F(RpcServerTest, AddressInUseThrows) {
  RpcServer first;
  first.StartRpcServer();
  RpcServer second;
  EXPECT_THROW(second.StartRpcServer(), std::runtime_error);
  EXPECT_TRUE(Ask<ExampleRPCReply>(ExampleRPCRequest()).has_value());
}

TEST_F(RpcServerTest, SecondStartReplacesTheServerAndKeepsTheServices) {
  int created = 0;
  int destroyed = 0;
  const ScriptedRegistry registry({{"counted", [&created, &destroyed] {
                                      const std::string name = "created " + std::to_string(++created);
                                      return Named(name, [&destroyed] { ++destroyed; })();
                                    }}});
  RpcServer server;
  server.StartRpcServer();
  const LogCapture log(20);
  EXPECT_TRUE(server.StartRpcServer());
  EXPECT_EQ(created, 2);
  EXPECT_EQ(destroyed, 1);
  EXPECT_EQ(AskName(), "created 1");
  EXPECT_THAT(log.RecordsOf("modules/apisdk/apisdk"),
              ElementsAre(LogRecord{40, "modules/apisdk/apisdk", "LoadApi",
                                    "current api modules already load, not support reload."}));
}

TEST_F(RpcServerTest, HandlerThatThrowsFailsItsCallAlone) {
  std::atomic<int> calls = 0;
  const ScriptedRegistry registry({{"throwing", Scripted([&calls](const KeyValue&, Status& reply) {
                                      if (++calls == 1) throw std::runtime_error("the handler's fault");
                                      reply.set_message("well again");
                                      return true;
                                    })}});
  RpcServer server;
  server.StartRpcServer();
  EXPECT_EQ(AskName(), "(no reply)");
  EXPECT_EQ(AskName(), "well again");
}

TEST_F(RpcServerTest, TwoRequestsAreServedAtOnceAndNoThird) {
  std::atomic<int> inside = 0;
  vextest::Notification both_entered;
  vextest::Notification leave;
  const ScriptedRegistry registry({{"waiting", Scripted([&](const KeyValue& request, Status&) {
                                      if (request.key().empty()) return true;
                                      if (++inside == 2) both_entered.Notify();
                                      return leave.Wait();
                                    })}});
  RpcServer server;
  server.StartRpcServer();
  KeyValue waiting;
  waiting.set_key("wait");
  std::thread first([this, &waiting] { Ask<Status>(waiting); });
  std::thread second([this, &waiting] { Ask<Status>(waiting); });
  EXPECT_TRUE(both_entered.Wait());
  google::protobuf::Any reply;
  EXPECT_FALSE(client_->CallWithin(KeyValue(), reply, std::chrono::milliseconds(100)));
  leave.Notify();
  first.join();
  second.join();
  EXPECT_TRUE(client_->Call(KeyValue(), reply));
}

TEST_F(RpcServerTest, ServicesOutliveTheRequestsInThem) {
  vextest::Gate gate;
  std::atomic<bool> left = false;
  std::atomic<bool> destroyed_after_leaving = false;
  const ScriptedRegistry registry({{"example", Example()},
                                   {"waiting", Scripted(
                                                   [&](const KeyValue&, Status&) {
                                                     gate.Pass();
                                                     left = true;
                                                     return true;
                                                   },
                                                   [&] { destroyed_after_leaving = left.load(); })}});
  auto server = std::make_unique<RpcServer>();
  server->StartRpcServer();
  std::thread caller([this] { Ask<Status>(KeyValue()); });
  ASSERT_TRUE(gate.WaitUntilReached());
  std::thread owner([&server] { server.reset(); });
  // While the owner waits for the request under way, the server goes on, but no request gets in any more.
  while (Ask<ExampleRPCReply>(ExampleRPCRequest()).has_value()) {
  }
  EXPECT_FALSE(left);
  gate.Open();
  owner.join();
  caller.join();
  EXPECT_TRUE(destroyed_after_leaving);
}

TEST_F(RpcServerTest, TheServicesGoBeforeTheServer) {
  const auto listens = [] {
    std::ifstream sockets("/proc/net/unix");
    const std::string all((std::istreambuf_iterator<char>(sockets)), {});
    return all.find(" @example@default\n") != std::string::npos;
  };
  bool listened = false;
  const ScriptedRegistry registry({{"a", Named("a", [&] { listened = listens(); })}});
  auto server = std::make_unique<RpcServer>();
  server->StartRpcServer();
  server.reset();
  EXPECT_TRUE(listened);
  EXPECT_FALSE(listens());
}

TEST_F(RpcServerTest, EndsWhileRequestsPourIn) {
  constexpr int kServers = 20;
  constexpr int kAnswersOfEach = 20;
  std::atomic<int> server_number = 0;
  std::atomic<int> answered = 0;
  std::atomic<int> wrong = 0;
  std::atomic<int> inside = 0;
  std::atomic<int> destroyed_under_a_request = 0;
  const auto make = [&]() -> std::unique_ptr<core::RpcService> {
    return Scripted(
        [&, own = server_number.load()](const KeyValue&, Status& reply) {
          ++inside;
          for (int i = 0; i < 50; ++i) std::this_thread::yield();  // so that one is almost always inside
          reply.set_code(own);
          --inside;
          return true;
        },
        [&] {
          if (inside > 0) ++destroyed_under_a_request;
        })();
  };
  const ScriptedRegistry registry({{"busy", make}});
  std::atomic<bool> stop = false;
  const auto pour = [&] {
    while (!stop) {
      const auto reply = Ask<Status>(KeyValue());
      if (!reply) continue;
      ++answered;
      // An answer may be on its way while the next server starts.
      if (reply->code() != server_number && reply->code() + 1 != server_number) ++wrong;
    }
  };
  std::thread first(pour);
  std::thread second(pour);
  for (int i = 0; i < kServers; ++i) {
    answered = 0;
    ++server_number;
    RpcServer server;
    server.StartRpcServer();
    EXPECT_TRUE(vextest::WaitFor([&] { return answered >= kAnswersOfEach; })) << "server " << i;
  }
  stop = true;
  first.join();
  second.join();
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(destroyed_under_a_request, 0);
}

TEST(RpcModuleTest, ServesFromLoadToDestruction) {
  auto module = core::ModuleFactory::Create("rpcservice");
  ASSERT_NE(module, nullptr);
  EXPECT_EQ(module->Name(), "rpcservice");
  EXPECT_EQ(module->Priority(), 10u);
  EXPECT_TRUE(module->Load());
  EXPECT_TRUE(module->Unload());
  using Options = klrpc::APIClientOptions;
  klrpc::APIClient client(std::make_unique<Options>(core::RpcUnixSocketUrl::rpc_url_example_, 1500, 200, 500, false));
  google::protobuf::Any reply;
  EXPECT_TRUE(client.Call(ExampleRPCRequest(), reply));
  module.reset();
  EXPECT_FALSE(client.Call(ExampleRPCRequest(), reply));
}

TEST(ExampleRpcReqTest, IsRegisteredForTheExampleRequest) {
  EXPECT_THAT(core::RpcServiceFactory::Names(), ElementsAre("example_rpcreq"));
  EXPECT_EQ(core::RpcServiceFactory::Create("example_rpcreq")->ServiceRequestType(), kExampleUrl);
}

}  // namespace
