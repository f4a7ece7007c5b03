// The encoder's and the player's daemon in one process, which answers every request in one way and prints its name:
//   every_daemon ok | refuse | hang
// A seek is told to the subscribers before it is answered, with the position that was asked for.
#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>
#include <unistd.h>

#include <iostream>
#include <memory>
#include <string>

#include "common/v1/status.pb.h"
#include "encoder/v1/encoder.pb.h"
#include "klrpc/api_server.h"
#include "player/v1/player.pb.h"
#include "player/v1/topics.h"

namespace {

using google::protobuf::Any;

constexpr const char* kEncd = "unix-abstract:encd@default";
constexpr const char* kPlayd = "unix-abstract:playd@default";
constexpr unsigned int kWorkers = 32;               // as many requests can hang
constexpr unsigned int kWaitForeverSeconds = 3600;  // longer than any caller waits; the test kills this process
constexpr int kRefusedCode = 6;
constexpr const char* kRefusedText = "not today";

enum class Mode { kOk, kRefuse, kHang };

// "lp.v1.SetSeekOfUplayerReq" of any packed request.
std::string NameOf(const Any& request) { return request.type_url().substr(request.type_url().rfind('/') + 1); }

class Daemon {
 public:
  explicit Daemon(Mode mode) : mode_(mode) {}

  void Serve() {
    encd_ = klrpc::APIServer::Create(std::make_unique<klrpc::APIServerOptions>(kWorkers, kEncd, false), Hooks());
    playd_ = klrpc::APIServer::Create(std::make_unique<klrpc::APIServerOptions>(kWorkers, kPlayd, true), Hooks());
    std::cout << "every_daemon listens on both" << std::endl;
    pause();
  }

 private:
  std::unique_ptr<klrpc::APIServer::UnaryHookSets> Hooks() {
    auto hooks = std::make_unique<klrpc::APIServer::UnaryHookSets>();
    hooks->unary = std::make_unique<klrpc::APIServer::UnaryHook>(
        [this](const Any& request, Any& reply) { return Answer(request, reply); });
    hooks->publish = std::make_unique<klrpc::APIServer::PublishHook>([this](const auto& message) {
      Note("publish " + message.topic());
      return mode_ != Mode::kRefuse;
    });
    return hooks;
  }

  void Note(const std::string& what) {
    std::cout << what + '\n' << std::flush;  // in one piece: other workers print too
    if (mode_ == Mode::kHang) sleep(kWaitForeverSeconds);
  }

  bool Answer(const Any& request, Any& reply) {
    const std::string name = NameOf(request);
    Note(name);
    if (lp::v1::SetSeekOfUplayerReq seek; mode_ == Mode::kOk && request.UnpackTo(&seek)) TellSeek(seek);
    name.starts_with("encoder.") ? AnswerAsEncoder(reply) : AnswerAsPlayer(name, reply);
    return true;
  }

  void TellSeek(const lp::v1::SetSeekOfUplayerReq& asked) {
    lp::v1::GetSeekOfUplayerResp seek;
    seek.set_unique_id(asked.unique_id());
    seek.set_seek_ms(asked.seek_ms());
    klrpc::v1::PubsubMessage message;
    message.set_topic(lp::v1::kGetSeekOfUplayerTopic);
    message.set_payload(seek.SerializeAsString());
    playd_->Publish(message);
  }

  void AnswerAsEncoder(Any& reply) const {
    common::v1::Status status;
    if (mode_ == Mode::kRefuse) {
      status.set_code(kRefusedCode);
      status.set_message(kRefusedText);
    }
    reply.PackFrom(status);
  }

  // The two requests that ask for something have a reply of their own, with the result in it.
  void AnswerAsPlayer(const std::string& name, Any& reply) const {
    lp::v1::UniversalResp result;
    result.set_result(mode_ == Mode::kOk);
    if (mode_ == Mode::kRefuse) {
      result.set_error_code(kRefusedCode);
      result.set_error_infor(kRefusedText);
    }
    if (name == lp::v1::GetMediaInfoOfUplayerReq::descriptor()->full_name()) {
      lp::v1::GetMediaInfoOfUplayerResp info;
      *info.mutable_result() = result;
      reply.PackFrom(info);
    } else if (name == lp::v1::GetSeekOfUplayerReq::descriptor()->full_name()) {
      lp::v1::GetSeekOfUplayerResp seek;
      *seek.mutable_result() = result;
      reply.PackFrom(seek);
    } else {
      reply.PackFrom(result);
    }
  }

  const Mode mode_;
  std::unique_ptr<klrpc::APIServer> encd_;
  std::unique_ptr<klrpc::APIServer> playd_;
};

}  // namespace

int main(int argc, char** argv) {
  const std::string word = argc == 2 ? argv[1] : "";
  if (word != "ok" && word != "refuse" && word != "hang") return 2;
  Daemon(word == "ok" ? Mode::kOk : word == "refuse" ? Mode::kRefuse : Mode::kHang).Serve();
  return 0;
}
