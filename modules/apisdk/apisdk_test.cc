#include "apisdk/apisdk.h"

#include <gmock/gmock.h>

#include <atomic>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <latch>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "apisdk/pubsub_sdk.h"
#include "klbase/log_sink.h"
#include "klrpc/api_client.h"
#include "platform/testing/log_capture.h"

// Linked so that each client's options come here first, because nothing else shows which were made in which order; and
// each text that the standard library hashes, so that a test can stop the SDK in its look for a host.
namespace {
std::vector<std::string> made_options;  // address, and whether it is another machine's
std::function<void()> when_made;        // called before each, if set
std::function<void(std::string_view)> when_hashed;
}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's own names
extern "C" {

void __real__ZN5klrpc16APIClientOptionsC1ERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEERKiSA_SA_b(
    klrpc::APIClientOptions* made, const std::string& address, const int& max_backoff_ms, const int& min_backoff_ms,
    const int& initial_backoff_ms, bool remote);

void __wrap__ZN5klrpc16APIClientOptionsC1ERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEERKiSA_SA_b(
    klrpc::APIClientOptions* made, const std::string& address, const int& max_backoff_ms, const int& min_backoff_ms,
    const int& initial_backoff_ms, bool remote) {
  if (when_made) when_made();
  made_options.push_back(address + (remote ? " remote" : " local"));
  __real__ZN5klrpc16APIClientOptionsC1ERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEERKiSA_SA_b(
      made, address, max_backoff_ms, min_backoff_ms, initial_backoff_ms, remote);
}

std::size_t __real__ZSt11_Hash_bytesPKvmm(const void* bytes, std::size_t length, std::size_t seed);

std::size_t __wrap__ZSt11_Hash_bytesPKvmm(const void* bytes, std::size_t length, std::size_t seed) {
  if (when_hashed) when_hashed({static_cast<const char*>(bytes), length});
  return __real__ZSt11_Hash_bytesPKvmm(bytes, length, seed);
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)

namespace apis {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using vextest::LogCapture;
using vextest::LogRecord;

LogRecord Record(int level, const std::string& function, const std::string& text) {
  return {level, "modules/apisdk/apisdk", function, text};
}

constexpr char kDisabled[] = "this api disable. need enable api with LoadApi.";
constexpr char kNoReload[] = "current api modules already load, not support reload.";

// A new SDK that lives to the end of the process, because the publish/subscribe holder keeps reaching its clients.
ApiSdk& NewSdk() {
  static auto& kept = *new std::vector<std::unique_ptr<ApiSdk>>;
  return *kept.emplace_back(std::make_unique<ApiSdk>());
}

Context ContextOf(const std::string& host) {
  Context context;
  context.SetHost(host);
  return context;
}

TEST(ApiSdkTest, StartsEmpty) {
  ApiSdk sdk;
  LogCapture log;
  EXPECT_FALSE(sdk.HasApiModule(ApiSdk::kPlayd));
  EXPECT_FALSE(sdk.HasApiModule(ApiSdk::kEncd));
  EXPECT_FALSE(sdk.HasApiModule(static_cast<ApiSdk::ApiModule>(3)));
  EXPECT_THAT(log.Records(), IsEmpty());
  EXPECT_EQ(sdk.Encoder(), nullptr);
  EXPECT_EQ(sdk.Player(), nullptr);
  EXPECT_THAT(log.Records(), ElementsAre(Record(50, "Encoder", kDisabled), Record(50, "Player", kDisabled)));
}

TEST(ApiSdkTest, ModulesAreOneAndTwo) {
  EXPECT_EQ(ApiSdk::kPlayd, 1);
  EXPECT_EQ(ApiSdk::kEncd, 2);
}

TEST(ApiSdkTest, LoadsTheEncoderAlone) {
  ApiSdk& sdk = NewSdk();
  LogCapture log;
  made_options.clear();
  sdk.LoadApi({ApiSdk::kEncd});
  EXPECT_THAT(log.Records(), IsEmpty());
  EXPECT_THAT(made_options, ElementsAre("unix-abstract:encd@default local"));
  EXPECT_TRUE(sdk.HasApiModule(ApiSdk::kEncd));
  EXPECT_FALSE(sdk.HasApiModule(ApiSdk::kPlayd));
  EXPECT_NE(sdk.Encoder(), nullptr);
  EXPECT_EQ(sdk.Player(), nullptr);
  EXPECT_NE(ApiPubSubSdk::instance_.PubSubEncd(), nullptr);
}

TEST(ApiSdkTest, RefusesASecondLoadAndChangesNothing) {
  ApiSdk& sdk = NewSdk();
  sdk.LoadApi({ApiSdk::kEncd});
  const ApiEncoder* encoder = sdk.Encoder();
  LogCapture log;
  made_options.clear();
  sdk.LoadApi({ApiSdk::kPlayd});
  EXPECT_THAT(log.Records(), ElementsAre(Record(40, "LoadApi", kNoReload)));
  EXPECT_THAT(made_options, IsEmpty());
  EXPECT_FALSE(sdk.HasApiModule(ApiSdk::kPlayd));
  EXPECT_EQ(sdk.Player(), nullptr);
  EXPECT_EQ(sdk.Encoder(), encoder);
}

TEST(ApiSdkTest, LoadsBothApisWithTheirClients) {
  ApiSdk& sdk = NewSdk();
  sdk.LoadApi({ApiSdk::kPlayd, ApiSdk::kEncd});
  EXPECT_NE(sdk.Encoder(), nullptr);
  EXPECT_NE(sdk.Player(), nullptr);
  EXPECT_NE(ApiPubSubSdk::instance_.PubSubEncd(), nullptr);
  EXPECT_NE(ApiPubSubSdk::instance_.PubSubPlayd(), nullptr);
  EXPECT_EQ(ApiPubSubSdk::instance_.PubSubSyncd(), nullptr);
  EXPECT_EQ(ApiPubSubSdk::instance_.PubSubOsd(), nullptr);
}

TEST(ApiSdkTest, MakesBothApisThenTheEncodersSideThenThePlayers) {
  ApiSdk& sdk = NewSdk();
  std::vector<bool> apis_there;
  std::vector<ApiPubSub*> encoder_events;
  made_options.clear();
  when_made = [&sdk, &apis_there, &encoder_events] {
    apis_there.push_back(sdk.Encoder() != nullptr && sdk.Player() != nullptr);
    encoder_events.push_back(ApiPubSubSdk::instance_.PubSubEncd());
  };
  sdk.LoadApi({ApiSdk::kPlayd, ApiSdk::kEncd});
  when_made = nullptr;
  EXPECT_THAT(made_options, ElementsAre("unix-abstract:encd@default local", "unix-abstract:playd@default local"));
  EXPECT_THAT(apis_there, ElementsAre(true, true));
  EXPECT_NE(encoder_events.at(0), encoder_events.at(1));  // replaced by the new client's in between
}

TEST(ApiSdkTest, DaemonClientsUseTheLocalAddressesAndTheDefaultBackOff) {
  ApiSdk& sdk = NewSdk();
  sdk.LoadApi({ApiSdk::kPlayd, ApiSdk::kEncd});
  EXPECT_EQ(sdk.ApiClientEncd().Options().Address(), "unix-abstract:encd@default");
  EXPECT_EQ(sdk.ApiClientPlayd().Options().Address(), "unix-abstract:playd@default");
  for (const klrpc::APIClient* client : {&sdk.ApiClientEncd(), &sdk.ApiClientPlayd()}) {
    EXPECT_EQ(client->Options().MaxBackoffMs(), 1500);
    EXPECT_EQ(client->Options().MinBackoffMs(), 200);
    EXPECT_EQ(client->Options().InitialBackoffMs(), 500);
    EXPECT_FALSE(client->Options().Remote());
  }
}

TEST(ApiSdkTest, RefusesAnEmptySetAndLoadsLater) {
  ApiSdk& sdk = NewSdk();
  LogCapture log;
  sdk.LoadApi({});
  EXPECT_THAT(log.Records(), ElementsAre(Record(50, "LoadApi", "at least one module is enabled")));
  sdk.LoadApi({ApiSdk::kEncd});
  EXPECT_NE(sdk.Encoder(), nullptr);
}

TEST(ApiSdkTest, KeepsAnUnknownModuleThatBlocksEveryLaterLoad) {
  ApiSdk sdk;
  const auto unknown = static_cast<ApiSdk::ApiModule>(3);
  made_options.clear();
  sdk.LoadApi({unknown});
  EXPECT_TRUE(sdk.HasApiModule(unknown));
  EXPECT_THAT(made_options, IsEmpty());
  LogCapture log;
  sdk.LoadApi({ApiSdk::kEncd});
  EXPECT_EQ(sdk.Encoder(), nullptr);
  EXPECT_THAT(log.Records(), ElementsAre(Record(40, "LoadApi", kNoReload), Record(50, "Encoder", kDisabled)));
}

TEST(ApiSdkTest, MakesOneNodeClientForEachHost) {
  ApiSdk sdk;
  made_options.clear();
  klrpc::APIClient& client = sdk.ApiNodeClientSyncd(ContextOf("device"));
  EXPECT_EQ(&sdk.ApiNodeClientSyncd(ContextOf("device")), &client);
  EXPECT_NE(&sdk.ApiNodeClientSyncd(ContextOf("Device")), &client);
  EXPECT_THAT(made_options, ElementsAre("device:7020 remote", "Device:7020 remote"));
}

TEST(ApiSdkTest, NodeClientsUseTheNodePortAndAreRemote) {
  ApiSdk sdk;
  const auto& options = sdk.ApiNodeClientSyncd(ContextOf("10.0.0.7")).Options();
  EXPECT_EQ(options.Address(), "10.0.0.7:7020");
  EXPECT_TRUE(options.Remote());
  EXPECT_EQ(options.MaxBackoffMs(), 1500);
  EXPECT_EQ(options.MinBackoffMs(), 200);
  EXPECT_EQ(options.InitialBackoffMs(), 500);
}

constexpr char kNoSyncd[] = "there is no client for the sync daemon: nothing in this program creates one";

TEST(ApiSdkTest, AskingForTheSyncDaemonsClientSaysThatThereIsNone) {
  ApiSdk sdk;
  LogCapture log;
  EXPECT_THAT([&sdk] { sdk.ApiClientSyncd(); }, testing::ThrowsMessage<std::logic_error>(kNoSyncd));
  EXPECT_THAT(log.Records(), ElementsAre(Record(50, "ApiClientSyncd", kNoSyncd)));
}

TEST(ApiSdkTest, ALocalContextHasNoNodeClient) {
  ApiSdk sdk;
  Context context;
  context.SetLocalUnixHost(true);
  LogCapture log;
  EXPECT_THROW(sdk.ApiNodeClientSyncd(context), std::logic_error);
  EXPECT_THAT(log.Records(), ElementsAre(Record(40, "ApiNodeClientSyncd",
                                                "need node comunication client but context is local unix client"),
                                         Record(50, "ApiClientSyncd", kNoSyncd)));
}

// Two threads ask for one host's client and wait for each other while they look for it, so that neither finds it.
void MakeOneNodeClientTwice() {
  constexpr int kHashedFrom = 21;  // the library searches smaller maps of texts without their hash
  ApiSdk sdk;
  for (int i = 0; i < kHashedFrom; ++i) sdk.ApiNodeClientSyncd(ContextOf("other-" + std::to_string(i)));
  std::latch both_look(2);
  std::atomic<int> looks = 0;
  when_hashed = [&both_look, &looks](std::string_view text) {
    if (text == "device" && ++looks <= 2) both_look.arrive_and_wait();
  };
  std::thread other([&sdk] { sdk.ApiNodeClientSyncd(ContextOf("device")); });
  sdk.ApiNodeClientSyncd(ContextOf("device"));
  other.join();
}

TEST(ApiSdkDeathTest, TwoMakersOfOneNodeClientStopTheProcessWithARecord) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto make = [] {
    KlLogSetObserver([](const KlLogRecord& record) {
      std::fprintf(stderr, "%d %.*s: %.*s\n", record.level, static_cast<int>(record.function.size()),
                   record.function.data(), static_cast<int>(record.text.size()), record.text.data());
    });
    MakeOneNodeClientTwice();
  };
  EXPECT_EXIT(make(), testing::KilledBySignal(SIGABRT),
              "50 ApiNodeClientSyncd: insert new node\\(device\\) client handle failed\\.");
}

// The holder's objects reach the clients when they go: an exit in the wrong order is a crash, surely under a sanitizer.
TEST(ApiSdkDeathTest, TheProcessExitsCleanlyWithEverythingLoaded) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto load_and_exit = [] {
    ApiSdk::instance_.LoadApi({ApiSdk::kPlayd, ApiSdk::kEncd});
    ApiPubSubSdk::instance_.PubSubPlayd()->Subscriber("me", "topic", [](const std::string&, const std::string&) {});
    ApiSdk::instance_.ApiNodeClientSyncd(ContextOf("localhost"));
    std::exit(0);
  };
  EXPECT_EXIT(load_and_exit(), testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace apis
