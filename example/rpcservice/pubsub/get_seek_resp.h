// Prints the results of seeks that the player daemon publishes.
#ifndef EXAMPLE_RPCSERVICE_PUBSUB_GET_SEEK_RESP_H_
#define EXAMPLE_RPCSERVICE_PUBSUB_GET_SEEK_RESP_H_

#include <cstdint>
#include <string>

#include "core/module.h"
#include "player/v1/player.pb.h"

// Subscribed from Load() until the process exits. The player API must have been loaded before.
class PubSubGetSeek : public core::Module {
 public:
  const std::string& Name() override;
  bool Load() override;
  bool Unload() override { return true; }
  uint32_t Priority() override { return 1020; }

 private:
  void SubscriberStatus();
};

// Prints one event as a block of lines on standard output. Any thread.
void PrintGetSeekResp(const lp::v1::GetSeekOfUplayerResp& event);

#endif  // EXAMPLE_RPCSERVICE_PUBSUB_GET_SEEK_RESP_H_
