#include "encd/service.h"

#include <gtest/gtest.h>

#include "common/v1/status.pb.h"
#include "encoder/v1/encoder.pb.h"

namespace encd {
namespace {

namespace pb = encoder::v1;
using google::protobuf::Any;

class ServiceTest : public ::testing::Test {
 protected:
  static Encoder::Options Options() {
    Encoder::Options options;
    options.width = 64;
    options.height = 64;
    return options;
  }

  Encoder encoder_{Options()};
  const Service service_{encoder_};
  Any reply_;
};

TEST_F(ServiceTest, AMessageThatCannotBeParsedIsRefused) {
  Any request;
  request.set_type_url("type.googleapis.com/encoder.v1.SetVideoQualityRequest");
  request.set_value("\xff\xff\xff");
  EXPECT_TRUE(service_.Handle(request, reply_));
  common::v1::Status status;
  ASSERT_TRUE(reply_.UnpackTo(&status));
  EXPECT_EQ(status.code(), 1);
  EXPECT_EQ(status.message(), "encoder.v1.SetVideoQualityRequest can't be parsed");
}

TEST_F(ServiceTest, ARefusalComesInTheRequestsOwnReply) {
  Any request;
  request.set_value("\xff\xff\xff");
  request.set_type_url("type.googleapis.com/encoder.v1.GetVideoQualityRequest");
  EXPECT_TRUE(service_.Handle(request, reply_));
  pb::GetVideoQualityReplay quality;
  ASSERT_TRUE(reply_.UnpackTo(&quality)) << reply_.type_url();
  EXPECT_EQ(quality.status().code(), 1);
  EXPECT_EQ(quality.status().message(), "encoder.v1.GetVideoQualityRequest can't be parsed");
  request.set_type_url("type.googleapis.com/encoder.v1.GetEncoderBitrateRequest");
  EXPECT_TRUE(service_.Handle(request, reply_));
  pb::GetEncoderBitrateReply bitrate;
  ASSERT_TRUE(reply_.UnpackTo(&bitrate)) << reply_.type_url();
  EXPECT_EQ(bitrate.status().message(), "encoder.v1.GetEncoderBitrateRequest can't be parsed");
}

TEST_F(ServiceTest, TypesOfOtherPackagesAndUnknownOnesAreLeftAlone) {
  for (const char* type : {"", "/", "common.v1.Status", "type.googleapis.com/common.v1.Status",
                           "type.googleapis.com/encoder.v1.NoSuchRequest", "encoder.v1."}) {
    Any request;
    request.set_type_url(type);
    EXPECT_FALSE(service_.Handle(request, reply_)) << type;
    EXPECT_EQ(reply_.ByteSizeLong(), 0u) << type;
  }
}

}  // namespace
}  // namespace encd
