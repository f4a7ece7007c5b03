#include "console/tcp/server.h"

// clang-format off: comes before asio
#include "console/asio_setup.h"
// clang-format on

#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/post.hpp>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "console/access/user_names.h"
#include "console/tcp/access/admission.h"
#include "console/tcp/access/login_queue.h"
#include "console/tcp/access/password_checker.h"
#include "console/tcp/connection.h"
#include "console/tcp/http_sniff.h"
#include "console/tcp/listener.h"
#include "console/transport/drain.h"
#include "console/transport/io_thread.h"
#include "console/transport/output_tick.h"
#include "klbase/collapsed_records.h"
#include "klbase/log.h"

namespace cli::internal {
namespace {

using Tcp = asio::ip::tcp;

// A browser that was lured to the port must not drive the console. On the I/O thread.
bool AcceptFirstLine(klbase::CollapsedRecords& records, int session_id, const std::string& peer, std::string_view line,
                     bool whole) {
  if (!SpeaksHttp(line, whole)) return true;
  KL_LOG_COLLAPSED(records, "console session %d from %s closed: %s\n", session_id, peer.c_str(),
                   whole ? "it speaks HTTP" : "its first line is too long");
  return false;
}

// Joins the parts: owns the I/O thread and the open connections, and passes events from one part to another.
class ServerImpl : public Server, public ConnectionOwner {
 public:
  // `passwords` is null when no password is asked for.
  ServerImpl(const ConsoleOptions& options, Parts parts, const Tcp::endpoint& endpoint,
             std::unique_ptr<PasswordChecker> passwords)
      : options_(options),
        parts_(std::move(parts)),
        passwords_(std::move(passwords)),
        admission_(options, parts_.table),
        listener_(io_, endpoint, [this](Tcp::socket socket) { Admit(std::move(socket)); }),
        tick_(io_, connections_),
        drain_(io_, connections_, options.drain),
        logins_([this](const std::string& password) { return passwords_->Check(password); }, options.login_delay),
        read_buffer_(kReadSize, '\0') {}

  ~ServerImpl() override { Stop(); }

  void Start() override {
    listener_.Start();
    thread_.Start();
  }

  int Port() const override { return listener_.Port(); }
  std::string Address() const override { return listener_.Address(); }

  void PostReap(int session_id) override {
    asio::post(io_, [table = parts_.table, session_id] { table->Reap(session_id); });
  }

  void Finish() override {
    const auto begin = [this] {
      listener_.Close();
      logins_.Close();
      drain_.Begin();
    };
    thread_.Run(begin, options_.drain);  // bounded, as all of the end is
  }

  void Stop() override {
    thread_.Stop();
    const ServedConnections open = std::exchange(connections_, {});
    for (const auto& connection : open) connection->Abandon();
  }

 private:
  static constexpr std::size_t kReadSize = 16 << 10;
  // Refused connections that are waited for, so that the reason arrives; more are closed at once.
  static constexpr int kMaxRefused = 256;

  void Admit(Tcp::socket socket) {
    const auto connection = std::make_shared<Connection>(io_, std::move(socket), *this);
    Admission::Decision decision = admission_.Decide(connection);
    connection->NameUser(decision.user ? users_.Of(*decision.user) : connection->Address());
    connections_.insert(connection);
    teller_.TellLater();
    if (decision.refusal.empty()) return connection->Start(std::move(decision.slot));
    const bool many = lingering_ >= kMaxRefused;
    ++lingering_;
    connection->Refuse(decision.refusal, many);
  }

  bool TellRecords() {
    bool more = admission_.TellRefusals();
    for (auto* records : {&openings_, &ends_, &closings_, &browsers_, &wrong_passwords_}) more |= records->Tell();
    if (passwords_ != nullptr) more |= passwords_->TellFailures();
    return more;
  }

  // --- ConnectionOwner

  const ConsoleOptions& Options() const override { return options_; }
  std::string& ReadBuffer() override { return read_buffer_; }

  std::shared_ptr<ConsoleSession> OpenSession(Connection& connection, SessionKind kind) override {
    SessionConfig config = parts_.session_config();
    const int id = config.id;
    config.kind = kind;
    config.peer = connection.Peer();
    config.user = connection.UserName();
    config.output = connection.Output();
    config.accept_first_line = [this, id, peer = config.peer](std::string_view line, bool whole) {
      return AcceptFirstLine(browsers_, id, peer, line, whole);
    };
    config.want_input = [weak = connection.weak_from_this()] {
      if (const auto self = weak.lock()) self->PostResume();
    };
    config.ended = [weak = connection.weak_from_this()] {
      if (const auto self = weak.lock()) self->PostEnded();
    };
    if (passwords_) config.login = Login(id, connection);
    auto session = std::make_shared<ConsoleSession>(std::move(config));
    parts_.table->Add(session, connection.TakeSlotAlong());
    KL_LOG_COLLAPSED(openings_, "console session %d opens: %s from %s\n", id, KindName(kind),
                     connection.Peer().c_str());
    return session;
  }

  LoginRules Login(int id, const Connection& connection) {
    LoginRules rules;
    rules.wrong_passwords = &wrong_passwords_;
    rules.check = [this, address = connection.Address(), client = connection.Client()](std::string password,
                                                                                       auto answer) {
      logins_.Post(std::move(password), address, client, [this, answer = std::move(answer)](PasswordVerdict verdict) {
        asio::post(io_, [answer, verdict] { answer(verdict); });
      });
    };
    rules.admit = [this, id, output = connection.Output()] { return admission_.AdmitLoggedIn(id, *output); };
    return rules;
  }

  klbase::CollapsedRecords& ClosingRecords() override { return closings_; }
  void CommandStarted() override { tick_.Start(); }

  void Closed(Connection& connection) override {
    if (const auto& session = connection.Session()) {
      KL_LOG_COLLAPSED(ends_, "console session %d closes\n", session->Id());
      parts_.table->Reap(session->Id());
    }
    if (connection.Refused()) --lingering_;
    thread_.TrimMemoryLater();
    connections_.erase(connection.shared_from_this());
  }

  const ConsoleOptions options_;
  const Parts parts_;
  const std::unique_ptr<PasswordChecker> passwords_;
  Admission admission_;
  UserNames users_;
  // A working day's sessions are told one by one, a storm's are not.
  klbase::CollapsedRecords openings_{30, "opened console sessions", {20, std::chrono::minutes(1)}};
  klbase::CollapsedRecords ends_{30, "closed console sessions", {20, std::chrono::minutes(1)}};
  klbase::CollapsedRecords closings_{40, "console connections closed"};
  klbase::CollapsedRecords browsers_{40, "console sessions closed for their first line"};
  klbase::CollapsedRecords wrong_passwords_{40, "wrong console passwords", {3, std::chrono::minutes(1)}};
  int lingering_ = 0;  // refused connections that are not closed yet
  IoThread thread_;
  asio::io_context& io_ = thread_.Io();
  RecordsTeller teller_{io_, [this] { return TellRecords(); }};
  ServedConnections connections_;
  Listener listener_;
  OutputTick tick_;
  Drain drain_;
  LoginQueue logins_;  // posts its answers to io_
  std::string read_buffer_;
};

}  // namespace

// In the order in which an operator should hear of mistakes: nothing is listened on before all is checked.
std::unique_ptr<Server> MakeServer(const ConsoleOptions& options, Server::Parts parts) {
  const Tcp::endpoint endpoint = EndpointFor(options);
  std::unique_ptr<PasswordChecker> passwords;
  if (!options.password_file.empty()) passwords = std::make_unique<PasswordChecker>(options.password_file);
  return std::make_unique<ServerImpl>(options, std::move(parts), endpoint, std::move(passwords));
}

}  // namespace cli::internal
