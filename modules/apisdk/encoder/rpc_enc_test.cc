#include "apisdk/rpc_enc.h"

#include <gmock/gmock.h>

#include <functional>
#include <string>
#include <vector>

#include "common/v1/status.pb.h"
#include "encoder/v1/encoder.pb.h"
#include "klbase/log_sink.h"
#include "modules/apisdk/testing/clients.h"
#include "platform/testing/fake_daemon.h"
#include "platform/testing/log_capture.h"

namespace apis {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using vextest::LogCapture;
using vextest::LogRecord;

constexpr char kFile[] = "modules/apisdk/encoder/rpc_enc";

common::v1::Status StatusWith(int code, const std::string& message) {
  common::v1::Status status;
  status.set_code(code);
  status.set_message(message);
  return status;
}

// With a daemon that answers every request with code 7.
class RpcEncoderTest : public testing::Test {
 protected:
  RpcEncoderTest() {
    const auto status = StatusWith(7, "seven");
    daemon_.Answer<encoder::v1::SetVideoQualityRequest>(status);
    daemon_.Answer<encoder::v1::AddStreamRequest>(status);
    daemon_.Answer<encoder::v1::DeleteStreamRequest>(status);
    daemon_.Answer<encoder::v1::SetEncoderBitrateRequest>(status);
  }

  void ExpectSeven() const {
    EXPECT_EQ(status_.code, 7);
    EXPECT_EQ(status_.message, "seven");
  }

  vextest::FakeDaemon daemon_;
  const std::unique_ptr<klrpc::APIClient> client_ = ClientOf(daemon_);
  const RpcEncoder encoder_{[this]() -> klrpc::APIClient& { return *client_; }};
  ApiStatus status_{-1, "before"};
};

// Whoever looks at the record sees the status that the caller gave.
TEST_F(RpcEncoderTest, AFailureIsLoggedBeforeTheStatusIsSet) {
  std::vector<int> codes;
  KlLogSetObserver([&](const KlLogRecord& record) {
    if (record.source_file == kFile) codes.push_back(status_.code);
  });
  const auto client = ClientOfNobody();
  const RpcEncoder nobody([&client]() -> klrpc::APIClient& { return *client; });
  nobody.SetVideoQuality(ApiEncoder::kLow, status_);
  EXPECT_EQ(status_.code, 500);
  nobody.SetVideoQuality(static_cast<ApiEncoder::Qulity>(3), status_);
  KlLogSetObserver(nullptr);
  EXPECT_EQ(status_.code, 400);
  EXPECT_EQ(codes, (std::vector<int>{-1, 500}));
}

TEST(ApiEncoderTest, QualitiesAreZeroOneTwo) {
  EXPECT_EQ(ApiEncoder::kLow, 0);
  EXPECT_EQ(ApiEncoder::kMiddle, 1);
  EXPECT_EQ(ApiEncoder::kHigh, 2);
}

TEST_F(RpcEncoderTest, QualitiesTravelAsOneTwoThree) {
  for (const auto quality : {ApiEncoder::kLow, ApiEncoder::kMiddle, ApiEncoder::kHigh}) {
    encoder_.SetVideoQuality(quality, status_);
    ExpectSeven();
  }
  const auto requests = daemon_.RequestsOf<encoder::v1::SetVideoQualityRequest>();
  ASSERT_EQ(requests.size(), 3u);
  EXPECT_EQ(requests[0].qulity(), encoder::v1::LOW);
  EXPECT_EQ(requests[1].qulity(), encoder::v1::MIDDLE);
  EXPECT_EQ(requests[2].qulity(), encoder::v1::HIGH);
  EXPECT_FALSE(requests[0].has_attributes());
}

TEST_F(RpcEncoderTest, AnUnknownQualityIsRefusedWithoutARequest) {
  for (const int quality : {3, -1}) {
    LogCapture log;
    // Values that no enumerator names, but that the type holds.
    encoder_.SetVideoQuality(static_cast<ApiEncoder::Qulity>(quality), status_);
    EXPECT_EQ(status_.code, 400);
    EXPECT_EQ(status_.message, "error,unkown qulity.");
    EXPECT_THAT(log.Records(), ElementsAre(LogRecord{50, kFile, "SetVideoQuality", "error,unkown qulity."}));
  }
  EXPECT_THAT(daemon_.Requests(), IsEmpty());
}

TEST_F(RpcEncoderTest, CreateStreamSendsThePlatform) {
  encoder_.CreateStream({"id", "rtmp://host/app", "secret"}, status_);
  ExpectSeven();
  const auto platform = daemon_.RequestsOf<encoder::v1::AddStreamRequest>().at(0).live_platform();
  EXPECT_EQ(platform.unique_id(), "id");
  EXPECT_EQ(platform.url(), "rtmp://host/app");
  EXPECT_EQ(platform.key(), "secret");
  EXPECT_FALSE(platform.has_attributes());
}

TEST_F(RpcEncoderTest, CreateStreamSendsThePlatformAlsoWhenItsTextsAreEmpty) {
  encoder_.CreateStream({}, status_);
  EXPECT_TRUE(daemon_.RequestsOf<encoder::v1::AddStreamRequest>().at(0).has_live_platform());
}

TEST_F(RpcEncoderTest, DeleteStreamSendsTheId) {
  encoder_.DeleteStream("id", status_);
  ExpectSeven();
  EXPECT_EQ(daemon_.RequestsOf<encoder::v1::DeleteStreamRequest>().at(0).unique_id(), "id");
}

TEST_F(RpcEncoderTest, SetEncoderBitrateSendsTheBitrate) {
  encoder_.SetEncoderBitrate(-2500, status_);
  ExpectSeven();
  EXPECT_EQ(daemon_.RequestsOf<encoder::v1::SetEncoderBitrateRequest>().at(0).bitrate_kbps(), -2500);
}

TEST_F(RpcEncoderTest, SetPushDelaySendsTheSameEmptyMessageForEveryDelay) {
  encoder::v1::GetEncoderBitrateReply reply;
  *reply.mutable_status() = StatusWith(7, "seven");
  daemon_.Answer<encoder::v1::GetEncoderBitrateReply>(reply);
  encoder_.SetPushDelay(5, status_);
  ExpectSeven();
  encoder_.SetPushDelay(60, status_);
  const auto requests = daemon_.Requests();
  ASSERT_EQ(requests.size(), 2u);
  for (const auto& request : requests) {
    EXPECT_EQ(request.type_url(), "type.googleapis.com/encoder.v1.GetEncoderBitrateReply");
    EXPECT_EQ(request.value(), "");
  }
}

TEST_F(RpcEncoderTest, SetPushDelayWithoutAStatusInTheReplyIsASuccess) {
  daemon_.Answer<encoder::v1::GetEncoderBitrateReply>(encoder::v1::GetEncoderBitrateReply());
  encoder_.SetPushDelay(5, status_);
  EXPECT_EQ(status_.code, 0);
  EXPECT_EQ(status_.message, "");
}

TEST_F(RpcEncoderTest, AReplyOfAnotherTypeGivesTheDefaultsWithoutARecord) {
  daemon_.Answer<encoder::v1::DeleteStreamRequest>(encoder::v1::GetEncoderBitrateReply());
  LogCapture log;
  encoder_.DeleteStream("id", status_);
  EXPECT_EQ(status_.code, 0);
  EXPECT_EQ(status_.message, "");
  EXPECT_THAT(log.RecordsOf("modules/"), IsEmpty());
}

TEST_F(RpcEncoderTest, SetPushDelayTakesNoStatusThatIsNotInsideItsReply) {
  daemon_.Answer<encoder::v1::GetEncoderBitrateReply>(StatusWith(7, "seven"));
  encoder_.SetPushDelay(5, status_);
  EXPECT_EQ(status_.code, 0);
  EXPECT_EQ(status_.message, "");
}

struct Operation {
  const char* name;
  const char* failure;
  std::function<void(const ApiEncoder&, ApiStatus&)> call;
};

const Operation kOperations[] = {
    {"SetVideoQuality", "request set video quality failure",
     [](const ApiEncoder& encoder, ApiStatus& status) { encoder.SetVideoQuality(ApiEncoder::kHigh, status); }},
    {"CreateStream", "request screate stream failure",
     [](const ApiEncoder& encoder, ApiStatus& status) { encoder.CreateStream({}, status); }},
    {"DeleteStream", "request delete stream failure",
     [](const ApiEncoder& encoder, ApiStatus& status) { encoder.DeleteStream("", status); }},
    {"SetEncoderBitrate", "request set encoder bitrate failure",
     [](const ApiEncoder& encoder, ApiStatus& status) { encoder.SetEncoderBitrate(1, status); }},
    {"SetPushDelay", "request set pushdeley failure",
     [](const ApiEncoder& encoder, ApiStatus& status) { encoder.SetPushDelay(1, status); }},
};

TEST(RpcEncoderFailureTest, EveryOperationReportsAMissingReply) {
  const auto client = ClientOfNobody();
  const RpcEncoder encoder([&client]() -> klrpc::APIClient& { return *client; });
  for (const auto& operation : kOperations) {
    LogCapture log;
    ApiStatus status{-1, "before"};
    operation.call(encoder, status);
    EXPECT_EQ(status.code, 500) << operation.name;
    EXPECT_EQ(status.message, "") << operation.name;
    EXPECT_THAT(log.RecordsOf("modules/"), ElementsAre(LogRecord{50, kFile, operation.name, operation.failure}));
  }
}

TEST(RpcEncoderFailureTest, AnEmptyGetterThrowsAndLeavesTheStatus) {
  const RpcEncoder encoder(nullptr);
  for (const auto& operation : kOperations) {
    ApiStatus status{-1, "before"};
    EXPECT_THROW(operation.call(encoder, status), std::bad_function_call) << operation.name;
    EXPECT_EQ(status.code, -1);
    EXPECT_EQ(status.message, "before");
  }
}

}  // namespace
}  // namespace apis
