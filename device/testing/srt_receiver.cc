#include "testing/srt_receiver.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>
#include <utility>

namespace device::testing {

SrtReceiver::SrtReceiver(std::string words) : words_(std::move(words)) {
  // The port is free when it is chosen; when somebody else takes it before the child does, another one is tried.
  for (int attempt = 0; attempt < 5; ++attempt) {
    port_ = SilentUdpPort().port();
    if (TryStart()) return;
  }
  throw std::runtime_error("srt_receiver does not start: " + child_->Output());
}

bool SrtReceiver::TryStart() {
  child_ = std::make_unique<vextest::ChildProcess>(
      std::vector<std::string>{SRT_RECEIVER_PROGRAM, dir_.Path(), std::to_string(port_) + "?mode=listener" + words_},
      vextest::ChildProcess::Options{{}, "", /*pty=*/false, /*errors_with_output=*/true});
  return child_->WaitFor("listens for ") && !child_->WaitExit(std::chrono::milliseconds(0));
}

std::string SrtReceiver::Url() const { return "srt://127.0.0.1:" + std::to_string(port_); }

void SrtReceiver::Kill() { child_.reset(); }

void SrtReceiver::Start() {
  if (!TryStart()) throw std::runtime_error("srt_receiver does not start again: " + child_->Output());
}

SilentUdpPort::SilentUdpPort() : socket_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof(address);
  if (bind(socket_, reinterpret_cast<sockaddr*>(&address), size) != 0) throw std::runtime_error("no free port");
  getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &size);
  port_ = ntohs(address.sin_port);
}

SilentUdpPort::~SilentUdpPort() { close(socket_); }

}  // namespace device::testing
