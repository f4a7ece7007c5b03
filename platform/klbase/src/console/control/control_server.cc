#include "console/control/control_server.h"

// clang-format off: comes before asio
#include "console/asio_setup.h"
// clang-format on

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <asio/io_context.hpp>
#include <asio/local/stream_protocol.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <utility>

#include "console/access/allow_list.h"
#include "console/access/user_names.h"
#include "console/control/control_connection.h"
#include "console/control/protocol/reply.h"
#include "console/control/socket_file.h"
#include "console/transport/drain.h"
#include "console/transport/io_thread.h"
#include "console/transport/output_tick.h"
#include "klbase/collapsed_records.h"
#include "klbase/log.h"

namespace cli::internal {
namespace {

using Local = asio::local::stream_protocol;

// Who connected; the kernel noted it then.
std::optional<ucred> PeerOf(int fd) {
  ucred peer{};
  socklen_t size = sizeof peer;
  if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return std::nullopt;
  return peer;
}

// Accepting fails as long as this lasts, unlike the failure of one connection.
bool OutOfResources(int error) { return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM; }

// Joins the parts: owns the I/O thread and the open connections.
class ControlServerImpl : public ControlServer, public ControlConnectionOwner {
 public:
  ControlServerImpl(const ConsoleOptions& options, Parts parts, std::unique_ptr<SocketFile> file)
      : options_(options),
        parts_(std::move(parts)),
        path_(file->Path()),
        allowed_(options.allow),
        file_(std::move(file)),
        // asio closes what it is given: a copy, so that the file's own stays.
        listener_(io_, ::fcntl(file_->Fd(), F_DUPFD_CLOEXEC, 0)),
        read_buffer_(kReadSize, '\0') {}

  ~ControlServerImpl() override { Stop(); }

  void Start() override {
    AwaitConnection();
    thread_.Start();
  }

  const std::string& Path() const override { return path_; }

  void Finish() override {
    const auto begin = [this] {
      std::error_code ignored;
      listener_.close(ignored);
      file_.reset();  // the kernel refuses connections from now on
      drain_.Begin();
    };
    thread_.Run(begin, options_.drain);  // bounded, as all of the end is
  }

  void Stop() override {
    thread_.Stop();
    file_.reset();
    const ServedConnections open = std::exchange(connections_, {});
    for (const auto& connection : open) connection->Abandon();
  }

 private:
  static constexpr std::size_t kReadSize = 16 << 10;
  // Connections that are accepted in a row before others, which are served already, have their turn.
  static constexpr int kAtOnce = 16;
  // Refused connections that are waited for, so that the reason arrives; more are closed at once.
  static constexpr int kMaxRefused = 256;

  void AwaitConnection() {
    listener_.async_wait(asio::posix::stream_descriptor::wait_read, [this](const std::error_code& error) {
      if (!error && listener_.is_open()) AcceptWaiting();
    });
  }

  void AcceptWaiting() {
    for (int i = 0; i < kAtOnce; ++i) {
      const int fd = ::accept4(listener_.native_handle(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
      if (fd >= 0) {
        if (std::exchange(out_of_resources_, false)) KL_LOG(30, "console control socket accepts connections again\n");
        Admit(Local::socket(io_, Local(), fd));
        continue;
      }
      if (errno == EAGAIN || errno == EWOULDBLOCK) break;
      if (OutOfResources(errno)) return BackOff(errno);
      // Anything else is the failure of one connection that is gone already.
    }
    AwaitConnection();
  }

  // The connection that can't be accepted stays readable: without a pause this would spin.
  void BackOff(int error) {
    constexpr auto kPause = std::chrono::milliseconds(200);
    if (!std::exchange(out_of_resources_, true)) {
      KL_LOG(40, "console control socket cannot accept connections: %s\n", std::strerror(error));
    }
    pause_.expires_after(kPause);
    pause_.async_wait([this](const std::error_code& failed) {
      if (!failed && listener_.is_open()) AwaitConnection();
    });
  }

  void Admit(Local::socket socket) {
    const auto peer = PeerOf(socket.native_handle());
    const std::string user = peer ? users_.Of(peer->uid) : "unknown";
    const std::string name = peer ? user + " pid " + std::to_string(peer->pid) : user;
    const auto connection = std::make_shared<ControlConnection>(io_, std::move(socket), name, *this);
    connection->NameUser(user);
    connections_.insert(connection);
    teller_.TellLater();
    SessionSlot slot;
    const std::string refusal = Refusal(peer, name, slot);
    if (refusal.empty()) return connection->Start(std::move(slot));
    const bool many = lingering_ >= kMaxRefused;
    ++lingering_;
    connection->Refuse(StatusReply("", Status::kUnreachable, refusal), many);
  }

  // "" for a user who may come, with a slot.
  std::string Refusal(const std::optional<ucred>& peer, const std::string& name, SessionSlot& slot) {
    if (!allowed_.Any() && !(peer && allowed_.Allows(peer->uid))) {
      KL_LOG_COLLAPSED(refusals_, "console control connection from %s refused: this user may not use it\n",
                       name.c_str());
      return "user " + (peer ? users_.Of(peer->uid) : "unknown") +
             " may not use this console; add the user to KLBASE_CONSOLE_ALLOW";
    }
    slot = parts_.table->TakeSlot();
    if (slot) return "";
    KL_LOG_COLLAPSED(refusals_, "console control connection from %s refused: all %d sessions are in use\n",
                     name.c_str(), options_.max_sessions);
    return "all " + std::to_string(options_.max_sessions) + " sessions of the console are in use; try again later";
  }

  bool TellRecords() {
    bool more = false;
    for (auto* records : {&openings_, &ends_, &closings_, &refusals_}) more |= records->Tell();
    return more;
  }

  // --- ControlConnectionOwner

  const ConsoleOptions& Options() const override { return options_; }
  std::string& ReadBuffer() override { return read_buffer_; }
  klbase::CollapsedRecords& ClosingRecords() override { return closings_; }
  void CommandStarted() override { tick_.Start(); }

  std::shared_ptr<ControlSession> OpenControl(ControlConnection& connection, SessionSlot slot) override {
    const SessionConfig parts = parts_.session_config();
    ControlSession::Config config;
    config.id = parts.id;
    config.peer = connection.Peer();
    config.user = connection.UserName();
    config.root = parts.root;
    config.builtins = parts.builtins;
    config.host = parts.host;
    config.transport = connection.Transport();
    auto session = std::make_shared<ControlSession>(std::move(config));
    parts_.table->Add(session, std::move(slot));
    KL_LOG_COLLAPSED(openings_, "console session %d opens: %s from %s\n", session->Id(), KindName(session->Kind()),
                     connection.Peer().c_str());
    return session;
  }

  std::shared_ptr<ConsoleSession> Attach(ControlConnection& connection, const ControlSession& session) override {
    SessionConfig config = parts_.session_config();
    config.id = session.Id();
    config.kind = SessionKind::kAttached;
    config.peer = connection.Peer();
    config.user = connection.UserName();
    config.output = connection.Output();
    const ControlSession::Transport transport = connection.Transport();
    config.want_input = transport.want_input;
    config.ended = transport.ended;
    auto attached = std::make_shared<ConsoleSession>(std::move(config));
    parts_.table->Replace(attached);
    return attached;
  }

  void Closed(ControlConnection& connection) override {
    if (const int session = connection.SessionId(); session != 0) {
      KL_LOG_COLLAPSED(ends_, "console session %d closes\n", session);
      parts_.table->Reap(session);
    }
    if (connection.Refused()) --lingering_;
    thread_.TrimMemoryLater();
    connections_.erase(connection.shared_from_this());
  }

  const ConsoleOptions options_;
  const Parts parts_;
  const std::string path_;
  AllowList allowed_;
  UserNames users_;
  // A working day's sessions are told one by one, a script's are not.
  klbase::CollapsedRecords openings_{30, "opened console control sessions", {20, std::chrono::minutes(1)}};
  klbase::CollapsedRecords ends_{30, "closed console control sessions", {20, std::chrono::minutes(1)}};
  klbase::CollapsedRecords closings_{40, "console control connections closed"};
  klbase::CollapsedRecords refusals_{40, "refused console control connections"};
  int lingering_ = 0;  // refused connections that are not closed yet
  bool out_of_resources_ = false;
  IoThread thread_;
  asio::io_context& io_ = thread_.Io();
  RecordsTeller teller_{io_, [this] { return TellRecords(); }};
  asio::steady_timer pause_{io_};
  ServedConnections connections_;
  Drain drain_{io_, connections_, options_.drain};
  OutputTick tick_{io_, connections_};
  std::unique_ptr<SocketFile> file_;
  asio::posix::stream_descriptor listener_;
  std::string read_buffer_;
};

// Makes the folder of a socket that nobody has named. One that is there already may be somebody else's, who could put a
// socket of his in the place of ours: that one is refused.
void MakeFolder(const std::string& path) {
  const std::string folder = path.substr(0, path.rfind('/'));
  constexpr mode_t kOwnersAlone = 0700;
  ::mkdir(folder.c_str(), kOwnersAlone);
  struct stat found {};
  if (::lstat(folder.c_str(), &found) != 0) return;  // the socket's own error tells of one that can't be made
  const bool owned = found.st_uid == ::geteuid() || found.st_uid == 0;
  if (S_ISDIR(found.st_mode) && owned && (found.st_mode & S_IWOTH) == 0) return;
  throw std::runtime_error("console control socket " + path +
                           ": its folder is not this user's, or others may change it; remove it, or name another one "
                           "in KLBASE_CONSOLE_SOCKET");
}

}  // namespace

std::unique_ptr<ControlServer> MakeControlServer(const ConsoleOptions& options, ControlServer::Parts parts) {
  const ControlSocketPath& socket = options.control_socket;
  if (socket.path.empty()) return nullptr;
  std::unique_ptr<SocketFile> file;
  try {
    if (socket.make_folder) MakeFolder(socket.path);
    file = std::make_unique<SocketFile>(socket.path);
  } catch (const std::runtime_error& error) {
    if (socket.asked_for) throw;
    KL_LOG(40, "%s; there is none\n", error.what());
    return nullptr;
  }
  return std::make_unique<ControlServerImpl>(options, std::move(parts), std::move(file));
}

}  // namespace cli::internal
