// An encoder daemon that misbehaves in a chosen way, or gives the answer of its arguments. It prints each request.
//   fake_encd status CODE TEXT | never | wrong-type | garbage | die | refuse
#include <google/protobuf/text_format.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "common/v1/status.pb.h"
#include "encoder/v1/encoder.pb.h"
#include "klrpc/api_server.h"

namespace {

using google::protobuf::Any;

constexpr const char* kAddress = "unix-abstract:encd@default";
constexpr unsigned int kWaitForeverSeconds = 3600;  // longer than any caller waits; the test kills this process

std::string Describe(const Any& request) {
  google::protobuf::TextFormat::Printer printer;
  printer.SetExpandAny(true);
  printer.SetSingleLineMode(true);
  std::string text;
  printer.PrintToString(request, &text);
  return text;
}

bool Answer(const std::vector<std::string>& words, Any& reply) {
  const std::string& mode = words.front();
  if (mode == "never") sleep(kWaitForeverSeconds);
  if (mode == "die") _exit(9);
  if (mode == "refuse") return false;
  if (mode == "wrong-type") {
    encoder::v1::GetEncoderBitrateReply other;
    other.set_bitrate_kbps(77);
    other.mutable_status()->set_code(77);
    reply.PackFrom(other);
    return true;
  }
  common::v1::Status status;
  status.set_code(words.size() > 1 ? std::atoi(words[1].c_str()) : 0);
  status.set_message(words.size() > 2 ? words[2] : "");
  reply.PackFrom(status);
  if (mode == "garbage") reply.set_value("\xff\xff\xff\xff\xff");
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> words(argv + 1, argv + argc);
  if (words.empty()) return 2;
  auto hooks = std::make_unique<klrpc::APIServer::UnaryHookSets>();
  hooks->unary = std::make_unique<klrpc::APIServer::UnaryHook>([&words](const Any& request, Any& reply) {
    std::cout << Describe(request) << std::endl;
    return Answer(words, reply);
  });
  const auto server =
      klrpc::APIServer::Create(std::make_unique<klrpc::APIServerOptions>(2, kAddress, false), std::move(hooks));
  std::cout << "fake_encd listens on " << kAddress << std::endl;
  pause();
  return 0;
}
