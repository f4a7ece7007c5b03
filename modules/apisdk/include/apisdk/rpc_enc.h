// The encoder API over message RPC.
#ifndef APISDK_RPC_ENC_H_
#define APISDK_RPC_ENC_H_

#include <google/protobuf/message.h>

#include <string>
#include <utility>

#include "apisdk/api_encoder.h"
#include "apisdk/client_getter.h"

namespace apis {

// Immutable after construction. An empty getter makes every operation that sends throw std::bad_function_call.
class RpcEncoder : public ApiEncoder {
 public:
  explicit RpcEncoder(ClientGetter getter) : client_getter_(std::move(getter)) {}

  void SetVideoQuality(const Qulity& quality, ApiStatus& status) const override;
  void CreateStream(LiveStream stream, ApiStatus& status) const override;
  void DeleteStream(std::string unique_id, ApiStatus& status) const override;
  void SetEncoderBitrate(int bitrate_kbps, ApiStatus& status) const override;
  void SetPushDelay(const int& delay, ApiStatus& status) const override;

 private:
  // Sends `request` and fills `status` from a reply of type Reply; returns false, with it unchanged, when none came.
  template <typename Reply>
  bool Ask(const google::protobuf::Message& request, ApiStatus& status) const;

  const ClientGetter client_getter_;
};

}  // namespace apis

#endif  // APISDK_RPC_ENC_H_
