// The order of the interfaces' virtual operations, after the destructor's two places.
#include <gmock/gmock.h>

#include <cstddef>
#include <type_traits>
#include <vector>

#include "apisdk/api_encoder.h"
#include "apisdk/api_player.h"
#include "apisdk/api_pubsub.h"
#include "apisdk/apisdk.h"
#include "apisdk/context.h"
#include "apisdk/rpc_enc.h"
#include "apisdk/rpc_player.h"
#include "apisdk/rpc_pubsub.h"
#include "klrpc/api_client.h"
#include "platform/testing/virtual_slot.h"

namespace apis {
namespace {

using testing::ElementsAre;

template <typename... Members>
std::vector<std::size_t> Slots(Members... members) {
  return {vextest::VirtualSlot(members)...};
}

TEST(VirtualOrderTest, OfTheClient) {
  using klrpc::APIClient;
  EXPECT_THAT(Slots(&APIClient::Call, &APIClient::CallWithin, &APIClient::PublishMessage, &APIClient::SubscribeTopics),
              ElementsAre(2, 3, 4, 5));
}

TEST(VirtualOrderTest, OfTheEncoder) {
  EXPECT_THAT(Slots(&ApiEncoder::SetVideoQuality, &ApiEncoder::CreateStream, &ApiEncoder::DeleteStream,
                    &ApiEncoder::SetEncoderBitrate, &ApiEncoder::SetPushDelay),
              ElementsAre(2, 3, 4, 5, 6));
}

TEST(VirtualOrderTest, OfThePlayer) {
  using P = ApiPlayer;
  EXPECT_THAT(Slots(&P::LiveSystemInit, &P::LiveSystemUnInit, &P::SetIntputTiming, &P::SetOutputTiming,
                    &P::CreateUplayer, &P::DeleteUplayer, &P::OpenMediaOfUplayer, &P::CloseMediaOfUplayer,
                    &P::SwitchSourceOfUplayer, &P::SetPauseOfUplayer, &P::SetSeekOfUplayer, &P::GetSeekOfUplayer,
                    &P::SetSpeedOfUplayer, &P::SetVolumeOfUplayer, &P::GetMediaInfoOfUplayer, &P::SetUsbLinkOfUplayer,
                    &P::SubGetSeekOfUplayer, &P::PubGetSeekOfUplayer, &P::SubResultRepor, &P::PubResultRepor),
              ElementsAre(2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21));
}

TEST(VirtualOrderTest, OfPublishSubscribe) {
  EXPECT_THAT(Slots(&ApiPubSub::Publish, &ApiPubSub::Subscriber), ElementsAre(2, 3));
}

TEST(VirtualOrderTest, NothingFollows) {
  EXPECT_EQ(vextest::VirtualSlots<klrpc::APIClient>(), 6u);
  EXPECT_EQ(vextest::VirtualSlots<ApiEncoder>(), 7u);
  EXPECT_EQ(vextest::VirtualSlots<RpcEncoder>(), 7u);
  EXPECT_EQ(vextest::VirtualSlots<ApiPlayer>(), 22u);
  EXPECT_EQ(vextest::VirtualSlots<RpcPlayer>(), 22u);
  EXPECT_EQ(vextest::VirtualSlots<ApiPubSub>(), 4u);
  EXPECT_EQ(vextest::VirtualSlots<RpcPubSub>(), 4u);
}

TEST(VirtualOrderTest, OfTheSdkThereIsNone) {
  EXPECT_FALSE(std::is_polymorphic_v<ApiSdk>);
  EXPECT_FALSE(std::is_polymorphic_v<Context>);
}

}  // namespace
}  // namespace apis
