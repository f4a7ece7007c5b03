// A daemon that publishes the player events named on its standard input, a line each:
//   report ID URL STATE | seek ID SEEK_MS DURATION_MS | garbage | burst COUNT GROUP
// A burst numbers its reports from 0 and waits after each GROUP until the subscribers' queues can take the next one.
#include <chrono>
#include <cstdint>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>

#include "klrpc/api_server.h"
#include "player/v1/player.pb.h"
#include "player/v1/topics.h"

namespace {

constexpr auto kGroupPause = std::chrono::milliseconds(100);  // 1000 events each: 10,000 events a second

void Publish(klrpc::APIServer& server, const std::string& topic, const std::string& payload) {
  klrpc::v1::PubsubMessage message;
  message.set_topic(topic);
  message.set_payload(payload);
  server.Publish(message);
}

void PublishReport(klrpc::APIServer& server, const std::string& id, const std::string& url, uint32_t state) {
  lp::v1::ResultRepor report;
  report.set_unique_id(id);
  report.set_url(url);
  report.set_play_state(state);
  Publish(server, lp::v1::kResultReporTopic, report.SerializeAsString());
}

void PublishSeek(klrpc::APIServer& server, std::istream& words) {
  std::string id;
  uint32_t seek_ms = 0;
  uint32_t duration_ms = 0;
  words >> id >> seek_ms >> duration_ms;
  lp::v1::GetSeekOfUplayerResp seek;
  seek.set_unique_id(id);
  seek.set_seek_ms(seek_ms);
  seek.set_duration_ms(duration_ms);
  seek.mutable_result()->set_unique_id(id);
  seek.mutable_result()->set_result(true);
  seek.mutable_result()->set_error_code(-1);
  Publish(server, lp::v1::kGetSeekOfUplayerTopic, seek.SerializeAsString());
}

void PublishBurst(klrpc::APIServer& server, std::istream& words) {
  uint32_t count = 0;
  uint32_t group = 1;
  words >> count >> group;
  for (uint32_t number = 0; number < count; ++number) {
    if (number > 0 && number % group == 0) std::this_thread::sleep_for(kGroupPause);
    PublishReport(server, "burst", "u", number);
  }
}

void Obey(klrpc::APIServer& server, const std::string& line) {
  std::istringstream words(line);
  std::string what;
  std::string id;
  std::string url;
  uint32_t state = 0;
  words >> what;
  if (what == "report" && words >> id >> url >> state) PublishReport(server, id, url, state);
  if (what == "seek") PublishSeek(server, words);
  if (what == "garbage") Publish(server, lp::v1::kResultReporTopic, "\xff\xff\xff");
  if (what == "burst") PublishBurst(server, words);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const auto server = klrpc::APIServer::Create(std::make_unique<klrpc::APIServerOptions>(2, argv[1], true), nullptr);
  std::cout << "publisher listens on " << argv[1] << std::endl;
  for (std::string line; std::getline(std::cin, line);) Obey(*server, line);
  return 0;
}
