#include "platform/klrpc/testing/raw_server.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <string_view>
#include <utility>

#include "transport/unix_address.h"

namespace klrpc::testing {
namespace {

// Frames of HTTP/2: https://www.rfc-editor.org/rfc/rfc9113#name-frame-definitions
constexpr std::uint8_t kData = 0, kHeaders = 1, kSettings = 4, kPing = 6, kGoAway = 7;
constexpr std::uint8_t kEndStream = 1, kAck = 1, kEndHeaders = 4;
constexpr std::string_view kPreface = "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n";
constexpr std::size_t kHeadBytes = 9;

std::string Number(std::uint32_t value) {
  std::string bytes;
  for (int shift = 24; shift >= 0; shift -= 8) bytes += static_cast<char>(value >> shift);
  return bytes;
}

// A header field in HPACK's plainest form.
std::string Field(std::string_view name, std::string_view value) {
  std::string bytes(1, '\0');
  for (const std::string_view text : {name, value}) (bytes += static_cast<char>(text.size())) += text;
  return bytes;
}

Descriptor Listen(const std::string& address) {
  const UnixName name = ToUnixName(address);
  Descriptor listening(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  EXPECT_EQ(bind(listening.Get(), name.Get(), name.size), 0);
  EXPECT_EQ(listen(listening.Get(), 0), 0);
  return listening;
}

}  // namespace

void RawConnection::GoAway(std::uint32_t last) const { Write(kGoAway, 0, 0, Number(last) + Number(0)); }

void RawConnection::Begin(std::uint32_t stream) const {
  Write(kHeaders, kEndHeaders, stream, Field(":status", "200") + Field("content-type", "application/grpc"));
}

void RawConnection::Send(std::uint32_t stream, const std::string& message) const {
  Write(kData, 0, stream, '\0' + Number(static_cast<std::uint32_t>(message.size())) + message);
}

void RawConnection::End(std::uint32_t stream) const {
  Write(kHeaders, kEndHeaders | kEndStream, stream, Field("grpc-status", "0"));
}

void RawConnection::Serve(const RawServer::Asked& asked) const {
  std::string preface(kPreface.size(), '\0');
  if (!Read(preface) || preface != kPreface) return;
  Write(kSettings, 0, 0, "");
  std::string head(kHeadBytes, '\0');
  while (Read(head)) {
    const auto byte = [&head](std::size_t i) { return static_cast<std::uint8_t>(head[i]); };
    std::string payload(static_cast<std::size_t>(byte(0) << 16 | byte(1) << 8 | byte(2)), '\0');
    const std::uint8_t type = byte(3);
    const std::uint8_t flags = byte(4);
    const auto stream = static_cast<std::uint32_t>(byte(5) << 24 | byte(6) << 16 | byte(7) << 8 | byte(8));
    if (!Read(payload)) return;
    const bool answered = (flags & kAck) != 0;
    if (type == kSettings && !answered) Write(kSettings, kAck, 0, "");
    if (type == kPing && !answered) Write(kPing, kAck, 0, payload);
    if (type == kData && (flags & kEndStream) != 0) asked(*this, stream);
  }
}

void RawConnection::Cut() const { shutdown(socket_.Get(), SHUT_RDWR); }

bool RawConnection::Read(std::string& bytes) const {
  return bytes.empty() || recv(socket_.Get(), bytes.data(), bytes.size(), MSG_WAITALL) == std::ssize(bytes);
}

void RawConnection::Write(std::uint8_t type, std::uint8_t flags, std::uint32_t stream,
                          const std::string& payload) const {
  std::string frame = Number(static_cast<std::uint32_t>(payload.size())).substr(1);
  ((frame += static_cast<char>(type)) += static_cast<char>(flags)) += Number(stream) + payload;
  send(socket_.Get(), frame.data(), frame.size(), MSG_NOSIGNAL);  // the peer may be gone
}

RawServer::RawServer(const std::string& address, Asked asked) : asked_(std::move(asked)), listening_(Listen(address)) {}

RawServer::~RawServer() {
  shutdown(listening_.Get(), SHUT_RDWR);
  if (accepting_.joinable()) accepting_.join();
  for (Served& served : served_) {
    served.connection->Cut();
    served.thread.join();
  }
}

void RawServer::Start() { accepting_ = std::thread(&RawServer::AcceptAll, this); }

void RawServer::AcceptAll() {
  while (true) {
    Descriptor socket(accept4(listening_.Get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!socket) return;
    auto connection = std::make_unique<const RawConnection>(static_cast<int>(served_.size()) + 1, std::move(socket));
    std::thread thread([this, served = connection.get()] { served->Serve(asked_); });
    served_.push_back({std::move(connection), std::move(thread)});
  }
}

}  // namespace klrpc::testing
