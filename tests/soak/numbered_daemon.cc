// A daemon that numbers every reply and event and writes each of them to a ledger before it sends it, so that a lost,
// doubled or invented one is noticed afterwards.
//   numbered_daemon encd|playd LEDGER INSTANCE [MAX_DELAY_US] [EVENT_INTERVAL_US]
// The ledger gets a line at a time, whole also when the daemon is killed:
//   reply INSTANCE-NUMBER TOKEN | try NUMBER | sent NUMBER SUBSCRIBERS | end
// TOKEN is the request's unique_id, "-" for the encoder's requests, which have none. A player answers with the id
// TOKEN/INSTANCE-NUMBER. Events are result reports with the id INSTANCE and the play state NUMBER. SIGTERM ends it in
// good order; "end" is written after the last event was handed over.
#include <fcntl.h>
#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "common/v1/status.pb.h"
#include "klrpc/api_server.h"
#include "player/v1/player.pb.h"
#include "player/v1/topics.h"

namespace {

using google::protobuf::Any;
using google::protobuf::Message;

constexpr unsigned int kWorkers = 4;

class Ledger {
 public:
  explicit Ledger(const std::string& path) : fd_(open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600)) {
    if (fd_ < 0) throw std::runtime_error("can't write " + path);
  }
  ~Ledger() { close(fd_); }
  Ledger(const Ledger&) = delete;
  Ledger& operator=(const Ledger&) = delete;

  // One write, so that the line is whole even when the process is killed next. Without its line nothing may be sent.
  void Write(const std::string& line) const {
    const std::string text = line + "\n";
    if (write(fd_, text.data(), text.size()) != static_cast<ssize_t>(text.size())) _exit(3);
  }

 private:
  const int fd_;
};

struct Settings {
  bool player = false;
  std::string instance;
  int max_delay_us = 0;
  int event_interval_us = 0;
};

// The unique_id of any of the player's requests.
std::string TokenOf(const Any& request) {
  const std::string name = request.type_url().substr(request.type_url().rfind('/') + 1);
  const auto* type = google::protobuf::DescriptorPool::generated_pool()->FindMessageTypeByName(name);
  if (type == nullptr) return "-";
  const std::unique_ptr<Message> message(
      google::protobuf::MessageFactory::generated_factory()->GetPrototype(type)->New());
  const auto* field = type->FindFieldByName("unique_id");
  if (field == nullptr || !message->ParseFromString(request.value())) return "-";
  return message->GetReflection()->GetString(*message, field);
}

class Replies {
 public:
  Replies(const Settings& settings, const Ledger& ledger) : settings_(settings), ledger_(ledger) {}

  bool operator()(const Any& request, Any& reply) {
    const std::string token = TokenOf(request);
    const std::string number = settings_.instance + "-" + std::to_string(++count_);
    Delay();
    ledger_.Write("reply " + number + " " + token);
    Delay();  // time in which it can be killed
    settings_.player ? AnswerAsPlayer(request, token, number, reply) : AnswerAsEncoder(number, reply);
    return true;
  }

 private:
  void Delay() const {
    if (settings_.max_delay_us == 0) return;
    static thread_local std::minstd_rand random(std::random_device{}());
    std::this_thread::sleep_for(std::chrono::microseconds(random() % static_cast<unsigned>(settings_.max_delay_us)));
  }

  static void AnswerAsEncoder(const std::string& number, Any& reply) {
    common::v1::Status status;
    status.set_message(number);
    reply.PackFrom(status);
  }

  static void AnswerAsPlayer(const Any& request, const std::string& token, const std::string& number, Any& reply) {
    lp::v1::UniversalResp result;
    result.set_unique_id(token + "/" + number);
    result.set_result(true);
    if (!request.Is<lp::v1::GetMediaInfoOfUplayerReq>()) {
      reply.PackFrom(result);
      return;
    }
    lp::v1::GetMediaInfoOfUplayerResp info;
    info.set_unique_id(token + "/" + number);
    info.set_url(number);
    *info.mutable_result() = result;
    reply.PackFrom(info);
  }

  const Settings& settings_;
  const Ledger& ledger_;
  std::atomic<std::uint64_t> count_ = 0;
};

void PublishEvents(klrpc::APIServer& server, const Settings& settings, const Ledger& ledger,
                   const std::atomic<bool>& end) {
  auto due = std::chrono::steady_clock::now();
  for (std::uint32_t number = 0; !end; ++number) {
    lp::v1::ResultRepor report;
    report.set_unique_id(settings.instance);
    report.set_url("numbered");
    report.set_play_state(number);
    klrpc::v1::PubsubMessage message;
    message.set_topic(lp::v1::kResultReporTopic);
    message.set_payload(report.SerializeAsString());
    ledger.Write("try " + std::to_string(number));
    const std::size_t subscribers = server.Publish(message);
    ledger.Write("sent " + std::to_string(number) + " " + std::to_string(subscribers));
    due = std::max(due + std::chrono::microseconds(settings.event_interval_us), std::chrono::steady_clock::now());
    std::this_thread::sleep_until(due);
  }
}

void Serve(const Settings& settings, const Ledger& ledger) {
  sigset_t ends;
  sigemptyset(&ends);
  sigaddset(&ends, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &ends, nullptr);  // before there are threads
  const std::string address = std::string("unix-abstract:") + (settings.player ? "playd" : "encd") + "@default";
  Replies replies(settings, ledger);
  auto hooks = std::make_unique<klrpc::APIServer::UnaryHookSets>();
  hooks->unary = std::make_unique<klrpc::APIServer::UnaryHook>(std::ref(replies));
  auto server = klrpc::APIServer::Create(std::make_unique<klrpc::APIServerOptions>(kWorkers, address, settings.player),
                                         std::move(hooks));
  std::cout << "numbered_daemon listens on " << address << std::endl;
  std::atomic<bool> end = false;
  std::thread events;
  if (settings.event_interval_us > 0) {
    events = std::thread([&] { PublishEvents(*server, settings, ledger, end); });
  }
  int signal = 0;
  sigwait(&ends, &signal);
  end = true;
  if (events.joinable()) events.join();
  ledger.Write("end");
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> words(argv + 1, argv + argc);
  if (words.size() < 3 || (words[0] != "encd" && words[0] != "playd")) {
    std::cerr << "usage: numbered_daemon encd|playd LEDGER INSTANCE [MAX_DELAY_US] [EVENT_INTERVAL_US]\n";
    return 2;
  }
  Settings settings;
  settings.player = words[0] == "playd";
  settings.instance = words[2];
  if (words.size() > 3) settings.max_delay_us = std::atoi(words[3].c_str());
  if (words.size() > 4) settings.event_interval_us = std::atoi(words[4].c_str());
  try {
    const Ledger ledger(words[1]);
    Serve(settings, ledger);
  } catch (const std::exception& error) {
    std::cerr << "numbered_daemon: " << error.what() << "\n";
    return 1;
  }
  return 0;
}
