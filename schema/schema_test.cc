#include <gmock/gmock.h>
#include <google/protobuf/any.pb.h>
#include <google/protobuf/arena.h>
#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/message.h>
#include <google/protobuf/stubs/logging.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "common/v1/status.pb.h"
#include "encoder/v1/encoder.pb.h"
#include "example/v1/pubsub_test.pb.h"
#include "example/v1/rpc_test.pb.h"
#include "player/v1/player.pb.h"

namespace {

using google::protobuf::Descriptor;
using google::protobuf::EnumDescriptor;
using google::protobuf::FieldDescriptor;
using google::protobuf::FileDescriptor;

// The wire contract with the daemons, irregular names included. Enumerations, then messages in file order.

const std::vector<std::string> kExamplePubsubTest = {
    "message PubTestMessage: 1 string event; 2 int32 count; 3 bool is_proto",
};

const std::vector<std::string> kExampleRpcTest = {
    "message ExampleRPCRequest: 1 string request_auth; 2 int32 count; 3 bool is_proto",
    "message ExampleRPCReply: 1 common.v1.Status status",
};

// Long lines stand in pieces.
// NOLINTBEGIN(bugprone-suspicious-missing-comma)
const std::vector<std::string> kEncoderEncoder = {
    "enum Qulity: QULITY_TYPE_UNSPECIFIED = 0; LOW = 1; MIDDLE = 2; HIGH = 3",
    "enum RecordFormat: RECORD_TYPE_UNSPECIFIED = 0; RECORD_MP4 = 1; RECORD_WAV = 2",
    "message SetVideoQualityRequest: 1 encoder.v1.Qulity qulity; 2 common.v1.KeyValueList attributes",
    "message GetVideoQualityRequest: 1 common.v1.KeyValueList attributes",
    "message GetVideoQualityReplay: 1 common.v1.Status status; 2 encoder.v1.Qulity qulity",
    "message LivePlatformInfo: 1 string unique_id; 2 string url; 3 string key; 4 common.v1.KeyValueList "
    "attributes",
    "message AddStreamRequest: 1 encoder.v1.LivePlatformInfo live_platform",
    "message DeleteStreamRequest: 1 string unique_id",
    "message SetEncoderBitrateRequest: 1 int32 bitrate_kbps",
    "message GetEncoderBitrateRequest: 1 common.v1.KeyValueList attributes",
    "message GetEncoderBitrateReply: 1 common.v1.Status status; 2 int32 bitrate_kbps",
    "message SetPushDelayRequest: 1 int32 delay_time_second",
    "message StartStorageRecordRequest: 1 bool enable_audio; 2 bool enable_video; 3 "
    "encoder.v1.RecordFormat format; 4 common.v1.KeyValueList attributes",
    "message StopStorageRecordRequest: 1 common.v1.KeyValueList attributes",
    "message SetForwardRecordRequest: 1 bool enable_audio; 2 bool enable_video; 3 encoder.v1.RecordFormat "
    "format; 4 int32 forward_time_sec; 5 common.v1.KeyValueList attributes",
    "message ForwardRecordRequest: 1 common.v1.KeyValueList attributes",
};

const std::vector<std::string> kPlayerPlayer = {
    "enum FileType: UNSPECIFIED_FILETYPE = 0; VIDEO = 1; AUDIO = 2; PICTURE = 3",
    "enum MediaType: UNSPECIFIED_MEDIATYPE = 0; VIDEO_TYPE = 1; PICTURE_TYPE = 2; VIDEO_PICTURE_TYPE = 3",
    "enum EncodFormat: UNSPECIFIED_FORMAT = 0; H264 = 1; H265 = 2",
    "enum EncCRMode: UNSPECIFIED_CRMODE = 0; CONSTQP = 1; CBR = 2; VBR = 3",
    "enum EncProfile: UNSPECIFIED_PROFILE = 0; BASE = 1; MAIN = 2; HIGHT = 3",
    "enum SyncPolarity: UDISK_POSITIVE = 0; UDISK_NEGATIVE = 1",
    "message UniversalResp: 1 string unique_id; 2 bool result; 3 int32 error_code; 4 string error_infor",
    "message MediaFileInfo: 1 string url; 2 uint32 se_type; 3 uint64 se_time_ms; 4 uint64 play_time_ms; 5 "
    "lp.v1.FileType file_type",
    "message RtspStreamInfo: 1 string url; 2 lp.v1.EncodFormat encod_format; 3 uint32 width; 4 uint32 "
    "height; 5 uint32 fps",
    "message DisplayPosition: 1 int32 position_x; 2 int32 position_y; 3 uint32 width; 4 uint32 heigh; 5 "
    "uint32 video_priority",
    "message EncdParam: 1 uint32 in_width; 2 uint32 in_height; 3 uint32 in_fps; 4 uint32 ou_width; 5 "
    "uint32 ou_height; 6 uint32 ou_fps; 7 lp.v1.EncodFormat encod_format; 8 uint32 gob_value; 9 "
    "lp.v1.EncProfile profile; 10 lp.v1.EncCRMode enc_cr_mode; 11 uint32 bitrate; 12 uint32 max_bitrate",
    "message MapEntry: 1 uint32 index; 2 string url",
    "message LiveSystemInitReq: 1 string unique_id",
    "message LiveSystemUnInitReq: 1 string unique_id",
    "message VideoTiming: 1 int32 total; 2 int32 sync; 3 int32 active; 4 int32 front_porch; 5 "
    "lp.v1.SyncPolarity polarity",
    "message SetIntputTimingReq: 1 lp.v1.VideoTiming h_timing; 2 lp.v1.VideoTiming v_timing; 3 int32 freq",
    "message SetOutputTimingReq: 1 lp.v1.VideoTiming h_timing; 2 lp.v1.VideoTiming v_timing; 3 int32 freq",
    "message CreateUplayerReq: 1 string unique_id",
    "message DeleteUplayerReq: 1 string unique_id",
    "message OpenMediaOfUplayerReq: 1 string unique_id; 2 lp.v1.MediaType media_type; 3 bool play_immed; 4 "
    "lp.v1.MediaFileInfo media_info; 5 lp.v1.DisplayPosition dis_pos",
    "message CloseMediaOfUplayerReq: 1 string unique_id; 2 bool only_release_fd",
    "message SwitchSourceOfUplayerReq: 1 string unique_id; 2 lp.v1.MediaType media_type; 3 bool "
    "play_immed; 4 lp.v1.MediaFileInfo media_info; 5 lp.v1.DisplayPosition next_dis_pos",
    "message SetPauseOfUplayerReq: 1 string unique_id; 2 bool state",
    "message SetSeekOfUplayerReq: 1 string unique_id; 2 uint32 seek_ms",
    "message GetSeekOfUplayerReq: 1 string unique_id",
    "message GetSeekOfUplayerResp: 1 string unique_id; 2 uint32 seek_ms; 3 uint32 duration_ms; 4 "
    "lp.v1.UniversalResp result",
    "message SetSpeedOfUplayerReq: 1 string unique_id; 2 float speed",
    "message SetVolumeOfUplayerReq: 1 string unique_id; 2 uint32 volume",
    "message GetMediaInfoOfUplayerReq: 1 string unique_id",
    "message GetMediaInfoOfUplayerResp: 1 string unique_id; 2 string url; 3 uint32 width; 4 uint32 heigh; "
    "5 uint32 duration_ms; 6 lp.v1.UniversalResp result",
    "message ResultRepor: 1 string unique_id; 2 string url; 3 uint32 play_state",
    "message SetUsbLinkReq: 1 string unique_id; 2 uint32 usb_state",
    "message CreateRpsReq: 1 string unique_id; 2 bool stream_immed; 3 lp.v1.RtspStreamInfo stream_info; 4 "
    "lp.v1.DisplayPosition dis_pos",
    "message DeleteRpsReq: 1 string unique_id",
    "message SwitchRps: 1 string unique_id; 2 bool stream_immed; 3 lp.v1.RtspStreamInfo rps_info; 4 "
    "lp.v1.DisplayPosition dis_pos",
    "message SetPauseOfRpsReq: 1 string unique_id; 2 bool state",
    "message GetStreamInforOfRpsReq: 1 string unique_id",
    "message GetStreamInforOfRpsResp: 1 string unique_id; 2 lp.v1.RtspStreamInfo rps_info; 3 "
    "lp.v1.UniversalResp result",
    "message CreateUvccReq: 1 string unique_id; 2 lp.v1.DisplayPosition dis_pos",
    "message DeleteUvccReq: 1 string unique_id",
    "message SetPauseOfUvccReq: 1 string unique_id; 2 bool state",
    "message GetUvccInforOfUvccReq: 1 string unique_id",
    "message GetUvccInforOfUvccResp: 1 string unique_id; 2 uint32 width; 3 uint32 heigh; 4 "
    "lp.v1.UniversalResp result",
    "message CreateLiveReq: 1 string unique_id; 2 lp.v1.EncdParam encd_param; 3 bool network_adaptive; 4 "
    "bool enable_vpss",
    "message DeleteLiveReq: 1 string unique_id",
    "message SetNetworkAdaptiveReq: 1 string unique_id; 2 bool network_adaptive",
    "message SetLiveEncdParamReq: 1 string unique_id; 2 lp.v1.EncdParam encd_param",
    "message SetLiveVpssParamReq: 1 string unique_id; 2 uint32 width; 3 uint32 heigh; 4 uint32 angle",
    "message OpenUvcpOfLiveReq: 1 string unique_id; 2 bool stream_immed",
    "message CloseUvcpOfLiveReq: 1 string unique_id",
    "message SetPauseOfUvcpReq: 1 string unique_id; 2 bool state",
    "message OpenRtmpOfLiveReq: 1 string unique_id; 2 bool stream_immed; 3 repeated lp.v1.MapEntry url",
    "message CloseRtmpOfLiveReq: 1 string unique_id",
    "message AddAddressOfRtmpReq: 1 string unique_id; 2 lp.v1.MapEntry url",
    "message RemoveAddressOfRtmpReq: 1 string unique_id; 2 uint32 url_index",
    "message SetPauseOfRtmpReq: 1 string unique_id; 2 uint32 url_index; 3 bool state",
    "message OpenRecordOfLiveReq: 1 string unique_id; 2 bool record_immed; 3 repeated lp.v1.MapEntry url; "
    "4 string save_format",
    "message CloseRecordOfLiveReq: 1 string unique_id",
    "message SetPauseOfRecordReq: 1 string unique_id; 2 uint32 url_index; 3 bool state",
    "message SetFileTimeOfLiveReq: 1 string unique_id; 2 uint32 file_duration",
};
// NOLINTEND(bugprone-suspicious-missing-comma)

std::string TypeOf(const FieldDescriptor& field) {
  switch (field.type()) {
    case FieldDescriptor::TYPE_MESSAGE:
      return field.message_type()->full_name();
    case FieldDescriptor::TYPE_ENUM:
      return field.enum_type()->full_name();
    default:
      return field.type_name();
  }
}

// "1 string url" or "3 repeated lp.v1.MapEntry url".
std::string Describe(const FieldDescriptor& field) {
  return std::to_string(field.number()) + " " + (field.is_repeated() ? "repeated " : "") + TypeOf(field) + " " +
         field.name();
}

std::string Describe(const EnumDescriptor& type) {
  std::string text;
  for (int i = 0; i < type.value_count(); ++i) {
    text += (i == 0 ? "" : "; ") + type.value(i)->name() + " = " + std::to_string(type.value(i)->number());
  }
  return "enum " + type.name() + ": " + text;
}

std::string Describe(const Descriptor& type) {
  std::string text;
  for (int i = 0; i < type.field_count(); ++i) text += (i == 0 ? "" : "; ") + Describe(*type.field(i));
  return "message " + type.name() + ": " + text;
}

std::vector<std::string> Describe(const FileDescriptor& file) {
  std::vector<std::string> lines;
  lines.reserve(static_cast<std::size_t>(file.enum_type_count()) + static_cast<std::size_t>(file.message_type_count()));
  for (int i = 0; i < file.enum_type_count(); ++i) lines.push_back(Describe(*file.enum_type(i)));
  for (int i = 0; i < file.message_type_count(); ++i) lines.push_back(Describe(*file.message_type(i)));
  return lines;
}

struct SchemaFile {
  const FileDescriptor* file;
  std::string package;
  std::vector<std::string> imports;
  bool says_arenas;  // the compiler enables them anyway; the contract says where it is written
  const std::vector<std::string>& contents;
};

std::vector<SchemaFile> SchemaFiles() {
  return {
      {example::v1::PubTestMessage::descriptor()->file(), "example.v1", {}, false, kExamplePubsubTest},
      {example::v1::ExampleRPCReply::descriptor()->file(),
       "example.v1",
       {"common/v1/status.proto"},
       false,
       kExampleRpcTest},
      {encoder::v1::AddStreamRequest::descriptor()->file(),
       "encoder.v1",
       {"common/v1/keyvalue.proto", "common/v1/status.proto"},
       true,
       kEncoderEncoder},
      {lp::v1::UniversalResp::descriptor()->file(), "lp.v1", {}, true, kPlayerPlayer},
  };
}

TEST(SchemaTest, HasEveryMessageFieldAndEnumerationValueOfTheContract) {
  for (const auto& expected : SchemaFiles()) {
    EXPECT_THAT(Describe(*expected.file), testing::ElementsAreArray(expected.contents)) << expected.file->name();
  }
}

TEST(SchemaTest, HasPackagesImportsAndOptionsOfTheContract) {
  for (const auto& expected : SchemaFiles()) {
    const auto& file = *expected.file;
    std::vector<std::string> imports;
    imports.reserve(static_cast<std::size_t>(file.dependency_count()));
    for (int i = 0; i < file.dependency_count(); ++i) imports.push_back(file.dependency(i)->name());
    EXPECT_EQ(file.package(), expected.package);
    EXPECT_EQ(imports, expected.imports) << file.name();
    EXPECT_EQ(file.syntax(), FileDescriptor::SYNTAX_PROTO3) << file.name();
    EXPECT_EQ(file.service_count(), 0) << file.name();
    EXPECT_EQ(file.options().has_cc_enable_arenas(), expected.says_arenas) << file.name();
    EXPECT_TRUE(file.options().cc_enable_arenas()) << file.name();
    EXPECT_EQ(file.options().has_go_package(), expected.package == "example.v1") << file.name();
  }
}

TEST(SchemaTest, HasNoOptionalFieldAndNoOneof) {
  for (const auto& expected : SchemaFiles()) {
    for (int i = 0; i < expected.file->message_type_count(); ++i) {
      EXPECT_EQ(expected.file->message_type(i)->oneof_decl_count(), 0) << expected.file->message_type(i)->full_name();
    }
  }
}

TEST(SchemaTest, ReservesFieldNumbersFiveToNineteenOfTheExampleMessagesButNotFour) {
  for (const Descriptor* type :
       {example::v1::PubTestMessage::descriptor(), example::v1::ExampleRPCRequest::descriptor()}) {
    ASSERT_EQ(type->reserved_range_count(), 1) << type->full_name();
    EXPECT_EQ(type->reserved_range(0)->start, 5);
    EXPECT_EQ(type->reserved_range(0)->end, 20);  // one past the last
  }
}

std::vector<const FieldDescriptor*> StringFields() {
  std::vector<const FieldDescriptor*> fields;
  for (const auto& expected : SchemaFiles()) {
    for (int i = 0; i < expected.file->message_type_count(); ++i) {
      const Descriptor& type = *expected.file->message_type(i);
      for (int j = 0; j < type.field_count(); ++j) {
        if (type.field(j)->type() == FieldDescriptor::TYPE_STRING) fields.push_back(type.field(j));
      }
    }
  }
  return fields;
}

std::string reported;

// What protobuf logs while `work` runs.
std::string ReportOf(const std::function<void()>& work) {
  reported.clear();
  auto* const before = google::protobuf::SetLogHandler(
      [](google::protobuf::LogLevel, const char*, int, const std::string& text) { reported += text + "\n"; });
  work();
  google::protobuf::SetLogHandler(before);
  return reported;
}

TEST(SchemaTest, TextThatIsNotUtf8IsReportedUnderTheFieldsFullName) {
  const auto fields = StringFields();
  EXPECT_THAT(fields, testing::SizeIs(testing::Gt(50u)));
  for (const FieldDescriptor* field : fields) {
    const auto* prototype =
        google::protobuf::MessageFactory::generated_factory()->GetPrototype(field->containing_type());
    const std::unique_ptr<google::protobuf::Message> message(prototype->New());
    message->GetReflection()->SetString(message.get(), field, "\xFF");
    std::string bytes;
    const auto names_it = testing::HasSubstr("'" + field->full_name() + "'");
    EXPECT_THAT(ReportOf([&] { bytes = message->SerializeAsString(); }), names_it);
    EXPECT_THAT(ReportOf([&] { EXPECT_FALSE(message->ParseFromString(bytes)); }), names_it);
  }
}

TEST(EncoderSchemaTest, DefaultQualityRequestSerialisesToNothing) {
  EXPECT_EQ(encoder::v1::SetVideoQualityRequest().SerializeAsString(), "");
}

TEST(EncoderSchemaTest, BitrateReplyDoesNotUnpackIntoAStatus) {
  google::protobuf::Any packed;
  packed.PackFrom(encoder::v1::GetEncoderBitrateReply());
  common::v1::Status status;
  EXPECT_FALSE(packed.UnpackTo(&status));
  EXPECT_EQ(packed.type_url(), "type.googleapis.com/encoder.v1.GetEncoderBitrateReply");
}

TEST(EncoderSchemaTest, MessagesLiveOnArenas) {
  google::protobuf::Arena arena;
  auto* request = google::protobuf::Arena::CreateMessage<encoder::v1::AddStreamRequest>(&arena);
  EXPECT_EQ(request->mutable_live_platform()->GetArena(), &arena);
}

TEST(EncoderSchemaTest, RefusesAStringThatIsNotUtf8) {
  const std::string field_one_one_byte = "\x0A\x01\xFF";
  encoder::v1::LivePlatformInfo platform;
  EXPECT_FALSE(platform.ParseFromString(field_one_one_byte));
}

TEST(ExampleSchemaTest, PresentDefaultStatusOfAReplyTakesTwoBytes) {
  example::v1::ExampleRPCReply reply;
  reply.mutable_status();
  EXPECT_EQ(reply.SerializeAsString(), std::string("\x0A\x00", 2));
}

TEST(PlayerSchemaTest, FailedReplyWithoutAnErrorCodeSerialisesToNothing) {
  lp::v1::UniversalResp reply;
  reply.set_result(false);
  reply.set_error_code(0);
  EXPECT_EQ(reply.SerializeAsString(), "");
}

TEST(PlayerSchemaTest, SpeedTravelsAsTheBitsOfAFloat) {
  lp::v1::SetSpeedOfUplayerReq request;
  request.set_speed(0.3F);
  EXPECT_EQ(request.SerializeAsString(), "\x15\x9A\x99\x99\x3E");  // field 2, 32 bits, little endian
}

TEST(PlayerSchemaTest, EmptyMediaInfoReplyHasADefaultResult) {
  lp::v1::GetMediaInfoOfUplayerResp reply;
  ASSERT_TRUE(reply.ParseFromString(""));
  EXPECT_FALSE(reply.has_result());
  EXPECT_EQ(reply.result().unique_id(), "");
  EXPECT_FALSE(reply.result().result());
  EXPECT_EQ(reply.result().error_code(), 0);
}

TEST(PlayerSchemaTest, AddressesKeepTheirOrderAndTheirOwnIndexes) {
  lp::v1::OpenRtmpOfLiveReq request;
  for (const uint32_t index : {7u, 3u, 7u}) request.add_url()->set_index(index);
  lp::v1::OpenRtmpOfLiveReq received;
  ASSERT_TRUE(received.ParseFromString(request.SerializeAsString()));
  ASSERT_EQ(received.url_size(), 3);
  EXPECT_EQ(received.url(0).index(), 7u);
  EXPECT_EQ(received.url(1).index(), 3u);
  EXPECT_EQ(received.url(2).index(), 7u);
}

}  // namespace
