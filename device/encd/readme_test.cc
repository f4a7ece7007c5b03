// The tables of README.md, held against the running daemon's answers and their effects.
#include <gmock/gmock.h>
#include <google/protobuf/any.pb.h>
#include <google/protobuf/dynamic_message.h>
#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "absl/strings/str_replace.h"
#include "absl/strings/str_split.h"
#include "absl/strings/strip.h"
#include "common/v1/status.pb.h"
#include "encd/encoder.h"
#include "encd/testing/daemon_fixture.h"
#include "encoder/v1/encoder.pb.h"
#include "testing/media_probe.h"
#include "testing/picture_probe.h"
#include "testing/rtmp_server.h"

namespace encd {
namespace {

namespace pb = encoder::v1;
using device::testing::PictureRun;
using device::testing::ProbePictures;
using device::testing::RtmpServer;
using google::protobuf::Any;
using google::protobuf::Message;
using vextest::WaitFor;

using Row = std::vector<std::string>;

// The rows of the table under these columns, its cells without the marks of code.
std::vector<Row> Table(const std::string& columns) {
  const std::string page = vextest::ReadFile(ENCD_README);
  const auto head = page.find("| " + columns + " |\n");
  EXPECT_NE(head, std::string::npos) << columns;
  std::vector<Row> rows;
  const std::vector<std::string> lines = absl::StrSplit(page.substr(head), '\n');
  for (std::size_t i = 2; lines[i].starts_with("|"); ++i) {
    Row row = absl::StrSplit(lines[i].substr(1, lines[i].size() - 2), '|');
    for (std::string& cell : row) {
      cell = absl::StrReplaceAll(absl::StripAsciiWhitespace(cell), {{"`", ""}});
    }
    rows.push_back(row);
  }
  return rows;
}

std::unique_ptr<Message> New(const std::string& type) {
  const auto* found = google::protobuf::DescriptorPool::generated_pool()->FindMessageTypeByName(type);
  EXPECT_NE(found, nullptr) << type;
  return std::unique_ptr<Message>(google::protobuf::MessageFactory::generated_factory()->GetPrototype(found)->New());
}

// "0 ok; qulity: HIGH": the status, then the fields beside it.
std::string Told(Message& reply) {
  common::v1::Status status;
  std::string more;
  if (reply.GetTypeName() == "common.v1.Status") {
    status.CopyFrom(reply);
  } else {
    const auto* field = reply.GetDescriptor()->FindFieldByName("status");
    status.CopyFrom(reply.GetReflection()->GetMessage(reply, field));
    reply.GetReflection()->ClearField(&reply, field);
    more = reply.ShortDebugString();
  }
  return std::to_string(status.code()) + " " + status.message() + (more.empty() ? "" : "; " + more);
}

class ReadmeTest : public DaemonTest {
 protected:
  void SetUp() override {
    StartDaemon({"--stats_seconds=1"});
    ASSERT_FALSE(HasFatalFailure());
  }

  // Sends the row's request and expects its answer. "rtmp://HOST/live" is the server here.
  void ExpectAnswer(const Row& row) {
    const auto request = New("encoder.v1." + row[0]);
    const std::string words = absl::StrReplaceAll(row[1], {{"rtmp://HOST/live", server_.Url()}});
    ASSERT_TRUE(google::protobuf::TextFormat::ParseFromString(words, request.get())) << row[0] << ": " << words;
    Any packed;
    ASSERT_TRUE(client_->Call(*request, packed)) << row[0];
    const auto reply = New(row[2]);
    ASSERT_TRUE(packed.UnpackTo(reply.get())) << row[0] << " is answered with " << packed.type_url();
    EXPECT_THAT(Told(*reply), ::testing::Truly([&](const std::string& told) { return Matches(row[3], told); }))
        << row[0] << " is said to be answered with " << row[3] << " but is with " << Told(*reply);
  }

  bool Matches(const std::string& row, const std::string& told) {
    std::string pattern;
    for (const char c : absl::StrReplaceAll(row, {{"rtmp://HOST/live", server_.Url()}})) {
      if (std::string_view(".^$|()[]{}*+?\\").find(c) != std::string_view::npos) pattern += '\\';
      pattern += c;
    }
    pattern = absl::StrReplaceAll(pattern, {{"FILE", "[^ ]+"}, {"S s", "[0-9.]+ s"}, {"N frames", "[0-9]+ frames"}});
    return ::testing::Matches(::testing::MatchesRegex(pattern))(told);
  }

  std::vector<PictureRun> NewestFile(const char* kind) {
    for (const std::string& file : dir_.Files(".mp4")) {
      if (file.find(kind) != std::string::npos) return RunsOf(ProbePictures(file));
    }
    return {};
  }

  // What a test sees of each request's effect, when it has been answered.
  std::map<std::string, std::function<void()>> Effects() {
    const auto high = [](const std::vector<PictureRun>& runs) {
      return runs.size() == 1 && runs[0].width == 640 && runs[0].height == 360;  // of this daemon, at HIGH
    };
    return {
        {"SetVideoQualityRequest",
         [this] { EXPECT_EQ(Call<pb::GetEncoderBitrateReply>(pb::GetEncoderBitrateRequest()).bitrate_kbps(), 6000); }},
        {"GetVideoQualityRequest", [] {}},
        {"AddStreamRequest", [this] { EXPECT_TRUE(WaitFor([this] { return Arrived() > 0; })); }},
        {"DeleteStreamRequest",
         [this] {
           daemon_->Forget();
           EXPECT_TRUE(daemon_->WaitFor(" kbit/s\n"));  // no stream is named behind it
         }},
        {"SetEncoderBitrateRequest",
         [this] { EXPECT_EQ(Call<pb::GetEncoderBitrateReply>(pb::GetEncoderBitrateRequest()).bitrate_kbps(), 1500); }},
        {"GetEncoderBitrateRequest", [] {}},
        {"SetPushDelayRequest",
         [this] {
           AddStream("delayed", server_.Url());
           EXPECT_TRUE(daemon_->WaitFor("stream delayed connected, 0 frames"));
         }},
        {"StartStorageRecordRequest", [this] { EXPECT_TRUE(WaitRecorded(100'000)); }},
        {"StopStorageRecordRequest", [this, high] { EXPECT_TRUE(high(NewestFile("/record-"))); }},
        {"SetForwardRecordRequest", [this] { WaitForTheNextKeyframe(); }},
        {"ForwardRecordRequest", [this, high] { EXPECT_TRUE(high(NewestFile("/forward-"))); }},
    };
  }

  std::size_t Arrived() const {
    const auto files = server_.Recordings();
    return files.empty() ? 0 : ProbePictures(files.front()).size();
  }

  // The memory begins with one, which comes with the next picture; the statistics come once a second.
  void WaitForTheNextKeyframe() {
    for (int line = 0; line < 2; ++line) {
      daemon_->Forget();
      EXPECT_TRUE(daemon_->WaitFor(" kbit/s"));
    }
  }

  RtmpServer server_;
};

TEST_F(ReadmeTest, EachOfTheElevenRequestsIsAnsweredAsTheTableSaysAndHasItsEffect) {
  const auto effects = Effects();
  std::set<std::string> served;
  for (const Row& row : Table("Request | Sent | Reply | Answer | Effect")) {
    ExpectAnswer(row);
    ASSERT_EQ(effects.count(row[0]), 1u) << row[0];
    effects.at(row[0])();
    served.insert(row[0]);
  }
  std::set<std::string> requests;
  const auto* file = pb::AddStreamRequest::descriptor()->file();
  for (int i = 0; i < file->message_type_count(); ++i) {
    if (file->message_type(i)->name().ends_with("Request")) requests.insert(file->message_type(i)->name());
  }
  EXPECT_EQ(requests.size(), 11u);
  EXPECT_EQ(served, requests);
}

TEST_F(ReadmeTest, WhatMakesNoSenseIsRefusedAsTheTableSaysAndChangesNothing) {
  ExpectAnswer({"SetVideoQualityRequest", "qulity: HIGH", "common.v1.Status", "0 quality high, 6000 kbit/s"});
  ExpectAnswer({"SetEncoderBitrateRequest", "bitrate_kbps: 1500", "common.v1.Status", "0 bitrate 1500 kbit/s"});
  for (const Row& row : Table("Request | Sent | Reply | Answer")) {
    EXPECT_FALSE(row[3].starts_with("0 ")) << row[0];
    ExpectAnswer(row);
  }
  EXPECT_EQ(Call<pb::GetVideoQualityReplay>(pb::GetVideoQualityRequest()).qulity(), pb::HIGH);
  EXPECT_EQ(Call<pb::GetEncoderBitrateReply>(pb::GetEncoderBitrateRequest()).bitrate_kbps(), 1500);
  EXPECT_TRUE(dir_.Files(".mp4").empty());
}

TEST(ReadmeTableTest, TheQualitiesAreTheEncoders) {
  const auto rows = Table("Quality | Picture | Pictures per second | kbit/s");
  ASSERT_EQ(rows.size(), 3u);
  const Encoder::Options options;
  for (const Row& row : rows) {
    pb::Qulity quality;
    ASSERT_TRUE(pb::Qulity_Parse(row[0], &quality)) << row[0];
    const auto format = FormatOf(static_cast<Quality>(quality), options.width, options.height, options.fps);
    EXPECT_EQ(row[1], std::to_string(format.width) + "x" + std::to_string(format.height)) << row[0];
    EXPECT_EQ(row[2], std::to_string(format.fps)) << row[0];
    EXPECT_EQ(row[3], std::to_string(format.bitrate_kbps)) << row[0];
  }
}

}  // namespace
}  // namespace encd
