#include "testing/rtmp_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

#include "platform/testing/sync.h"

namespace device::testing {
namespace {

constexpr char kNginx[] = "/usr/sbin/nginx";

sockaddr_in Loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

bool Connects(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_in address = Loopback(port);
  const bool connected = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
  close(fd);
  return connected;
}

std::string Configuration(const std::string& dir, int port) {
  return "load_module /usr/lib/nginx/modules/ngx_rtmp_module.so;\n"
         "daemon off; master_process off; pid " +
         dir + "/pid; error_log " + dir +
         "/error.log info;\n"
         "events { worker_connections 64; }\n"
         "rtmp { access_log off; server { listen 127.0.0.1:" +
         std::to_string(port) +
         "; chunk_size 4096;\n"
         "  application live { live on; record all; record_path " +
         dir +
         "; record_unique on; record_suffix -%s.flv; }\n"
         "} }\n";
}

}  // namespace

RtmpServer::RtmpServer() {
  // The port is free when it is chosen; when somebody else takes it before nginx does, another one is tried.
  for (int attempt = 0; attempt < 5; ++attempt) {
    port_ = SilentPort(SilentPort::Kind::kRefuses).port();
    if (TryStart()) return;
  }
  throw std::runtime_error("nginx does not start: " + nginx_->Output() + vextest::ReadFile(dir_ / "error.log"));
}

bool RtmpServer::TryStart() {
  const std::string configuration = dir_.Write("nginx.conf", Configuration(dir_.Path(), port_));
  const vextest::ChildProcess::Options options = {
      .environment = {}, .directory = "", .pty = false, .errors_with_output = true};
  nginx_ = std::make_unique<vextest::ChildProcess>(
      std::vector<std::string>{kNginx, "-p", dir_.Path(), "-e", dir_ / "error.log", "-c", configuration}, options);
  bool up = false;
  vextest::WaitFor([&] { return (up = Connects(port_)) || nginx_->WaitExit(std::chrono::milliseconds(0)); });
  return up && !nginx_->WaitExit(std::chrono::milliseconds(0));
}

std::string RtmpServer::Url() const { return "rtmp://127.0.0.1:" + std::to_string(port_) + "/live"; }

void RtmpServer::Kill() { nginx_.reset(); }

void RtmpServer::Start() {
  if (!TryStart()) throw std::runtime_error("nginx does not start again: " + nginx_->Output());
}

SilentPort::SilentPort(Kind kind) : socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in address = Loopback(0);
  socklen_t size = sizeof(address);
  if (bind(socket_, reinterpret_cast<sockaddr*>(&address), size) != 0) throw std::runtime_error("no free port");
  if (kind == Kind::kNeverAnswers) listen(socket_, 4);
  getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &size);
  port_ = ntohs(address.sin_port);
}

bool SilentPort::HasConnection() const {
  pollfd waiting{socket_, POLLIN, 0};
  return poll(&waiting, 1, 0) == 1 && (waiting.revents & POLLIN) != 0;
}

SilentPort::~SilentPort() { close(socket_); }

}  // namespace device::testing
