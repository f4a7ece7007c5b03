// Prints the changes of play state that the player daemon publishes.
#ifndef EXAMPLE_RPCSERVICE_PUBSUB_RESULT_REPORT_H_
#define EXAMPLE_RPCSERVICE_PUBSUB_RESULT_REPORT_H_

#include <cstdint>
#include <string>

#include "core/module.h"
#include "player/v1/player.pb.h"

// Subscribed from Load() until the process exits. The player API must have been loaded before.
class ResultReport : public core::Module {
 public:
  const std::string& Name() override;
  bool Load() override;
  bool Unload() override { return true; }
  uint32_t Priority() override { return 1021; }

 private:
  void SubscriberStatus();
};

// Prints one event as a block of lines on standard output. Any thread.
void PrintResultRepor(const lp::v1::ResultRepor& event);

#endif  // EXAMPLE_RPCSERVICE_PUBSUB_RESULT_REPORT_H_
