#include "console/tcp/server.h"

// clang-format off: comes before asio
#include "console/tcp/asio_setup.h"
// clang-format on

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/ip/address.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <cerrno>
#include <cstring>
#include <future>
#include <list>
#include <set>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

#include "absl/synchronization/mutex.h"
#include "console/tcp/access.h"
#include "console/tcp/connection.h"
#include "console/tcp/http_sniff.h"
#include "klbase/log.h"

namespace cli::internal {
namespace {

using Tcp = asio::ip::tcp;

// Connections that have yet to log in have slots of their own, so that they can't keep operators out.
constexpr std::size_t kMaxLoggingIn = 32;

asio::ip::address ParseAddress(const std::string& text) {
  std::error_code error;
  auto address = asio::ip::make_address(text, error);
  if (error) {
    throw std::runtime_error("console address \"" + text +
                             "\" is no IP address; set KLBASE_CONSOLE_ADDRESS to one, such as 127.0.0.1 or 0.0.0.0");
  }
  return address;
}

bool IsLoopback(const asio::ip::address& address) {
  if (address.is_v6() && address.to_v6().is_v4_mapped()) {
    return asio::ip::make_address_v4(asio::ip::v4_mapped, address.to_v6()).is_loopback();
  }
  return address.is_loopback();
}

// Refuses what an operator must not serve by mistake.
Tcp::endpoint CheckedEndpoint(const ConsoleOptions& options) {
  constexpr int kLastPort = 65535;
  if (options.port < 0 || options.port > kLastPort) {
    throw std::runtime_error("console port " + std::to_string(options.port) +
                             " is out of range; choose one from 1 to 65535, or 0 for any free one");
  }
  const auto address = ParseAddress(options.address);
  if (!IsLoopback(address) && options.password_file.empty()) {
    throw std::runtime_error("console address " + options.address +
                             " can be reached from other machines; set KLBASE_CONSOLE_PASSWORD_FILE to a file with a "
                             "crypt(3) hash of the password, or use 127.0.0.1");
  }
  if (!options.password_file.empty()) ReadPasswordHash(options.password_file);
  return {address, static_cast<std::uint16_t>(options.port)};
}

[[noreturn]] void ThrowCannotListen(const Tcp::endpoint& endpoint, int error) {
  std::ostringstream text;
  text << "console cannot listen on " << endpoint << ": " << std::strerror(error);
  if (error == EADDRINUSE) text << "; another program has this port: choose another one, or end that program";
  if (error == EADDRNOTAVAIL) text << "; this machine doesn't have this address: look at KLBASE_CONSOLE_ADDRESS";
  if (error == EACCES) text << "; ports below 1024 are for root: choose another one";
  throw std::runtime_error(text.str());
}

Tcp::acceptor Listen(asio::io_context& io, const Tcp::endpoint& endpoint) {
  const int fd = ::socket(endpoint.protocol().family(), SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) ThrowCannotListen(endpoint, errno);
  Tcp::acceptor acceptor(io, endpoint.protocol(), fd);
  const int on = 1;
  // A restarted tool gets its port back at once; two tools that listen on one port are still refused.
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (::bind(fd, endpoint.data(), static_cast<socklen_t>(endpoint.size())) != 0) ThrowCannotListen(endpoint, errno);
  if (::listen(fd, SOMAXCONN) != 0) ThrowCannotListen(endpoint, errno);
  return acceptor;
}

// A browser that was lured to the port must not drive the console. On the I/O thread.
bool AcceptFirstLine(int session_id, const std::string& peer, std::string_view line, bool whole) {
  if (!SpeaksHttp(line, whole)) return true;
  KL_LOG(40, "console session %d from %s closed: it speaks HTTP\n", session_id, peer.c_str());
  return false;
}

class ServerImpl : public Server, public ConnectionOwner {
 public:
  ServerImpl(const ConsoleOptions& options, Parts parts)
      : options_(options),
        parts_(std::move(parts)),
        acceptor_(Listen(io_, CheckedEndpoint(options))),
        endpoint_(acceptor_.local_endpoint()),
        tick_(io_),
        read_buffer_(kReadSize, '\0') {}

  ~ServerImpl() override { Stop(); }

  void Start() override {
    AwaitConnection();
    // The thread handles no signals: it would be the one that runs a handler which waits for it.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &before);
    thread_ = std::thread([this] { io_.run(); });
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
  }

  int Port() const override { return endpoint_.port(); }

  std::string Address() const override {
    std::ostringstream text;
    text << endpoint_;
    return text.str();
  }

  void PostReap(int session_id) override {
    asio::post(io_, [table = parts_.table, session_id] { table->Reap(session_id); });
  }

  void Finish() override {
    const auto finished = std::make_shared<std::promise<void>>();
    asio::post(io_, [this, finished] {
      FinishAll();
      finished->set_value();
    });
    finished->get_future().wait_for(options_.drain);
  }

  void Stop() override {
    work_.reset();
    io_.stop();
    if (thread_.joinable()) thread_.join();
    // No thread serves them any more. A command that still runs finds its output closed.
    const auto connections = std::exchange(connections_, {});
    for (const auto& connection : connections) {
      if (connection->Output()) connection->Output()->Close();
      if (connection->Session()) connection->Session()->Close();
    }
  }

 private:
  static constexpr std::size_t kReadSize = 16 << 10;

  void AwaitConnection() {
    acceptor_.async_wait(Tcp::acceptor::wait_read, [this](const std::error_code& error) {
      if (!error) AcceptAll();
    });
  }

  void AcceptAll() {
    constexpr int kAtOnce = 64;  // so that those who are served are not kept waiting
    for (int i = 0; i < kAtOnce; ++i) {
      const int fd = ::accept4(acceptor_.native_handle(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
      if (fd >= 0) {
        if (std::exchange(accept_failed_, false)) KL_LOG(30, "console accepts connections again\n");
        Admit(Tcp::socket(io_, endpoint_.protocol(), fd));
        continue;
      }
      if (errno == EAGAIN || errno == EWOULDBLOCK) break;
      const bool out_of_resources = errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM;
      if (out_of_resources) return BackOff(errno);
      // Anything else is the failure of one connection that is gone already.
    }
    AwaitConnection();
  }

  // The waiting connection stays readable: without a pause this would spin.
  void BackOff(int error) {
    constexpr auto kPause = std::chrono::milliseconds(200);
    if (!std::exchange(accept_failed_, true)) {
      KL_LOG(40, "console cannot accept connections: %s\n", std::strerror(error));
    }
    auto timer = std::make_unique<asio::steady_timer>(io_, kPause);
    auto& waiting = *timer;
    waiting.async_wait([this, kept = std::move(timer)](const std::error_code& failed) {
      if (!failed && acceptor_.is_open()) AwaitConnection();
    });
  }

  void Admit(Tcp::socket socket) {
    const bool trusted = options_.password_file.empty();
    SessionSlot slot = trusted ? parts_.table->TakeSlot() : SessionSlot();
    const bool refuse = trusted && !slot;
    auto connection = std::make_shared<Connection>(io_, std::move(socket), *this, std::move(slot));
    if (!trusted) MakeRoomForLogin();
    connections_.insert(connection);
    if (refuse) {
      KL_LOG(40, "console connection from %s refused: all %d sessions are in use\n", connection->Peer().c_str(),
             options_.max_sessions);
      connection->Refuse(FullText());
    } else {
      if (!trusted) logging_in_.push_back(connection);
      connection->Start();
    }
  }

  std::string FullText() const {
    return "Too many sessions: all " + std::to_string(options_.max_sessions) + " are in use. Try again later.\n";
  }

  // The oldest connection that has not logged in leaves for a new one.
  void MakeRoomForLogin() {
    logging_in_.remove_if([](const auto& weak) {
      const auto connection = weak.lock();
      return !connection || connection->LoggedIn();
    });
    while (logging_in_.size() >= kMaxLoggingIn) {
      if (const auto oldest = logging_in_.front().lock()) oldest->Abort("others wait to log in");
      logging_in_.pop_front();
    }
  }

  // --- ConnectionOwner

  const ConsoleOptions& Options() const override { return options_; }
  std::string& ReadBuffer() override { return read_buffer_; }

  std::shared_ptr<ConsoleSession> OpenSession(Connection& connection, SessionKind kind) override {
    SessionConfig config = parts_.session_config();
    const int id = config.id;
    config.kind = kind;
    config.peer = connection.Peer();
    config.output = connection.Output();
    config.accept_first_line = [id, peer = config.peer](std::string_view line, bool whole) {
      return AcceptFirstLine(id, peer, line, whole);
    };
    config.want_input = [weak = connection.weak_from_this()] {
      if (const auto self = weak.lock()) self->PostResume();
    };
    config.ended = [weak = connection.weak_from_this()] {
      if (const auto self = weak.lock()) self->PostEnded();
    };
    if (!options_.password_file.empty()) config.login = Login(id, connection.Output());
    auto session = std::make_shared<ConsoleSession>(std::move(config));
    parts_.table->Add(session, connection.TakeSlotAlong());
    KL_LOG(30, "console session %d opens: %s from %s\n", id, KindName(kind), connection.Peer().c_str());
    return session;
  }

  LoginRules Login(int id, const std::shared_ptr<OutputBuffer>& output) {
    LoginRules rules;
    rules.delay_after_failure = options_.login_delay;
    rules.check = [this](const std::string& password) { return CheckPassword(password); };
    rules.admit = [this, id, output] {
      SessionSlot slot = parts_.table->TakeSlot();
      if (!slot) {
        output->Append(FullText());
        return false;
      }
      parts_.table->SetSlot(id, std::move(slot));
      return true;
    };
    return rules;
  }

  // On command threads. The file is read again each time, so that a new password needs no restart. One at a time: a
  // hash costs a lot of work on purpose.
  bool CheckPassword(const std::string& password) {
    try {
      const std::string hash = ReadPasswordHash(options_.password_file);
      absl::MutexLock lock(&password_mutex_);
      return PasswordMatches(password, hash);
    } catch (const std::exception& e) {
      KL_LOG(50, "console: %s\n", e.what());
      return false;
    }
  }

  void CommandStarted() override {
    if (std::exchange(ticking_, true)) return;
    Tick();
  }

  // Commands' output is written when they end or have printed a lot; the rest of it here.
  void Tick() {
    constexpr auto kLatency = std::chrono::milliseconds(20);  // not noticed by an operator
    tick_.expires_after(kLatency);
    tick_.async_wait([this](const std::error_code& error) {
      if (error) return;
      bool running = false;
      for (const auto& connection : connections_) {
        if (!connection->Session() || !connection->Session()->CommandRunning()) continue;
        running = true;
        connection->Output()->FlushUnlessBlocked();
      }
      ticking_ = running;
      if (running) Tick();
    });
  }

  void Closed(Connection& connection) override {
    if (const auto& session = connection.Session()) {
      KL_LOG(30, "console session %d closes\n", session->Id());
      parts_.table->Reap(session->Id());
    }
    connections_.erase(connection.shared_from_this());
  }

  void FinishAll() {
    std::error_code ignored;
    acceptor_.close(ignored);
    const auto connections = connections_;
    for (const auto& connection : connections) connection->Finish("The console ends.\n");
    AwaitDrain();
  }

  void AwaitDrain() {
    auto timer = std::make_unique<asio::steady_timer>(io_, options_.drain);
    auto& waiting = *timer;
    waiting.async_wait([this, kept = std::move(timer)](const std::error_code& error) {
      if (error) return;
      DropUnread();
      if (!connections_.empty()) AwaitDrain();
    });
  }

  // Readers had their time. Connections whose command still runs stay, to show what it says.
  void DropUnread() {
    const auto connections = connections_;
    for (const auto& connection : connections) {
      const bool stuck = connection->Output()->StalledFor() >= options_.drain;
      const bool running = connection->Session() && connection->Session()->CommandRunning();
      if (stuck || !running) connection->Abort("the console ends");
    }
  }

  const ConsoleOptions options_;
  const Parts parts_;
  asio::io_context io_{1};
  std::optional<asio::executor_work_guard<asio::io_context::executor_type>> work_{asio::make_work_guard(io_)};
  Tcp::acceptor acceptor_;
  const Tcp::endpoint endpoint_;
  asio::steady_timer tick_;
  std::string read_buffer_;
  std::set<std::shared_ptr<Connection>> connections_;
  std::list<std::weak_ptr<Connection>> logging_in_;  // the oldest first
  bool ticking_ = false;
  bool accept_failed_ = false;
  absl::Mutex password_mutex_;
  std::thread thread_;
};

}  // namespace

std::unique_ptr<Server> MakeServer(const ConsoleOptions& options, Server::Parts parts) {
  return std::make_unique<ServerImpl>(options, std::move(parts));
}

}  // namespace cli::internal
