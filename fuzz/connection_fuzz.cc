// A client on a connection, with any bytes: the socket, the telnet protocol, the session with its thread, and
// commands in a menu. The same bytes in any pieces run the same commands, and print the same for a program. No input
// makes the console send an operator control sequences of the input's choosing.
//
// The input: the kind of client (0 a program, 1 a telnet client that agrees to everything, 2 a client that is silent at
// first, 3 a client that begins with a telnet command), the sizes of the pieces (a line), then the bytes.

// clang-format off: must come first
#include "console/asio_setup.h"
// clang-format on

#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "cli/menu.h"
#include "console/commands/builtins.h"
#include "console/tcp/connection.h"
#include "console/tcp/http_sniff.h"
#include "fuzz/fuzz.h"
#include "klbase/options.h"
#include "platform/klbase/testing/test_host.h"

namespace {

using cli::internal::Connection;
using cli::internal::ConsoleSession;
using cli::internal::SessionKind;
using fuzz::Input;

std::vector<std::string> calls;  // of handlers; by the one session's thread while the loop waits for it

template <typename... Params>
std::unique_ptr<cli::Command> Recording(const std::string& name) {
  return cli::MakeCommand(
      name,
      [name](std::ostream& out, const Params&... values) {
        calls.push_back((name + ... + ("," + std::string(values))));
        out << name << " was run\n";
      },
      "help");
}

std::shared_ptr<cli::Menu> MakeMenu() {
  auto root = std::make_shared<cli::Menu>("main");
  auto submenu = std::make_unique<cli::Menu>("sub");
  submenu->Insert(Recording<std::string>("one"));
  submenu->Insert(Recording<std::string, std::string>("two"));
  root->Insert(Recording<>("a"));
  root->Insert(Recording<std::string>("say"));
  root->Insert(cli::MakeCommand(
      "throw", [](std::ostream&, const std::string& text) { throw std::runtime_error(text); }, "help"));
  root->Insert(cli::MakeCommand(
      "flood", [](std::ostream& out) { out << std::string(100'000, 'x') << "\n"; }, "help"));
  root->Insert(std::move(submenu));
  return root;
}

// The server and the console, for one connection.
class Server : private cli::internal::ConnectionOwner, private cli::internal::TestHost {
 public:
  explicit Server(bool client_speaks_first) {
    options_.sniff = client_speaks_first ? std::chrono::milliseconds(60'000) : std::chrono::milliseconds(0);
    int ends[2];
    FUZZ_CHECK(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0, "no socket pair");
    client_ = ends[0];
    asio::ip::tcp::socket socket(io_);
    socket.assign(asio::ip::tcp::v4(), ends[1]);
    cli::internal::ConnectionOwner& owner = *this;
    connection_ = std::make_shared<Connection>(io_, std::move(socket), owner);
    connection_->Start(cli::internal::SessionSlot());
    if (!client_speaks_first) Run();
  }
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;
  ~Server() override {
    if (!closed_) connection_->Abort("the test is over");
    Poll();
    if (session_) {
      Wait([this] { return session_->Thread().Done(); });
      session_->Thread().Join();
    }
    connection_.reset();
    ::close(client_);
  }

  void Send(std::string_view bytes) {
    while (!bytes.empty() && !closed_) {
      const ssize_t sent = ::send(client_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
      if (sent > 0) bytes.remove_prefix(static_cast<std::size_t>(sent));
      Run();
    }
  }
  void EndSending() {
    ::shutdown(client_, SHUT_WR);
    Run();
    if (!closed_) Wait([this] { return Run(), closed_; });
  }
  // All output that the client received.
  const std::string& Received() const { return received_; }
  std::size_t Closings() const { return closings_; }

 private:
  // Runs until the server has used all input and no command runs.
  void Run() {
    Wait([this] {
      Poll();
      const bool running = session_ && session_->CommandRunning();
      int unread = 0;
      ::ioctl(client_, TIOCOUTQ, &unread);
      if (running || (unread > 0 && !closed_)) return false;
      return Poll() == 0;
    });
  }
  std::size_t Poll() {
    io_.restart();
    const std::size_t handled = io_.poll();
    char buffer[65536];
    ssize_t count = 0;
    while ((count = ::recv(client_, buffer, sizeof buffer, MSG_DONTWAIT)) > 0) {
      received_.append(buffer, static_cast<std::size_t>(count));
    }
    return handled;
  }
  template <typename Condition>
  static void Wait(Condition condition) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!condition()) {
      FUZZ_CHECK(std::chrono::steady_clock::now() < limit, "it hangs");
      std::this_thread::yield();
    }
  }

  const cli::internal::ConsoleOptions& Options() const override { return options_; }
  std::string& ReadBuffer() override { return read_buffer_; }
  std::shared_ptr<ConsoleSession> OpenSession(Connection& connection, SessionKind kind) override {
    static const std::shared_ptr<cli::Menu> root = MakeMenu();
    static const auto builtins = cli::internal::MakeBuiltins("main");
    cli::internal::SessionConfig config;
    config.id = 1;
    config.kind = kind;
    config.peer = "fuzzer";
    config.root = root;
    config.builtins = builtins;
    config.host = this;
    config.output = connection.Output();
    config.accept_first_line = [](std::string_view line, bool whole) {
      return !cli::internal::SpeaksHttp(line, whole);
    };
    config.want_input = [weak = connection.weak_from_this()] {
      if (const auto self = weak.lock()) self->PostResume();
    };
    config.ended = [weak = connection.weak_from_this()] {
      if (const auto self = weak.lock()) self->PostEnded();
    };
    session_ = std::make_shared<ConsoleSession>(std::move(config));
    return session_;
  }
  klbase::CollapsedRecords& ClosingRecords() override { return closing_records_; }
  void CommandStarted() override {}
  void Closed(Connection&) override {
    closed_ = true;
    ++closings_;
  }

  klbase::CollapsedRecords closing_records_{40, "console connections closed"};
  asio::io_context io_;
  cli::internal::ConsoleOptions options_;
  std::string read_buffer_ = std::string(16384, '\0');
  int client_ = -1;
  std::shared_ptr<Connection> connection_;
  std::shared_ptr<ConsoleSession> session_;
  std::string received_;
  bool closed_ = false;
  std::size_t closings_ = 0;
};

// `bytes` without the telnet commands among them.
std::string WithoutTelnet(std::string_view bytes) {
  constexpr unsigned char kIac = 255;
  constexpr unsigned char kBegin = 250;
  constexpr unsigned char kFirstOption = 251;
  std::string text;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (static_cast<unsigned char>(bytes[i]) != kIac) {
      text += bytes[i];
      continue;
    }
    const auto command = static_cast<unsigned char>(i + 1 < bytes.size() ? bytes[i + 1] : '\0');
    FUZZ_CHECK(command >= kBegin, "not escaped: " + fuzz::Detail(bytes.substr(i, 10)));
    if (command == kIac) text += bytes[i];
    if (command == kBegin) i = std::min(bytes.find("\xff\xf0", i), bytes.size());
    ++i;
    if (command >= kFirstOption && command != kIac) ++i;
  }
  return text;
}

// The output from the first control sequence on that the line editor never writes; "" without one.
std::string UnsafeIn(std::string_view text) {
  constexpr std::string_view kControls = "\r\n\b\a\t";
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const auto next = static_cast<unsigned char>(i + 1 < text.size() ? text[i + 1] : '\0');
    if (byte == 0x1b && next == '[') {
      i = text.find_first_not_of("0123456789;?", i + 2);
      const bool known = i < text.size() && std::string_view("ABCDHJKmhl").find(text[i]) != std::string_view::npos;
      if (!known) return "a sequence";
    } else if ((byte < 0x20 && kControls.find(text[i]) == std::string_view::npos) || byte == 0x7f ||
               (byte == 0xc2 && next >= 0x80 && next < 0xa0)) {
      return fuzz::Detail(text.substr(i < 20 ? 0 : i - 20, 40));
    }
  }
  return "";
}

struct Outcome {
  std::vector<std::string> calls;
  std::string received;
};

// DO ECHO, DO SGA, WILL NAWS and a size, WILL TTYPE and a type.
constexpr std::string_view kAgreement(
    "\xff\xfd\x01\xff\xfd\x03\xff\xfb\x1f\xff\xfa\x1f\x00\x28\x00\x18\xff\xf0\xff\xfb\x18\xff\xfa\x18\x00xterm\xff\xf0",
    32);

Outcome RunClient(int kind, std::string_view bytes, std::string_view sizes) {
  calls.clear();
  Server server(kind != 2);
  if (kind == 1) server.Send(kAgreement);
  if (kind == 3) server.Send("\xff\xf1");  // NOP
  for (std::size_t i = 0; !bytes.empty(); ++i) {
    const std::size_t size =
        sizes.empty() ? bytes.size() : 1 + static_cast<unsigned char>(sizes[i % sizes.size()]) % 64;
    server.Send(bytes.substr(0, size));
    bytes.remove_prefix(std::min(size, bytes.size()));
  }
  server.EndSending();
  FUZZ_CHECK_EQUAL(server.Closings(), std::size_t{1});
  if (kind != 0) {
    const std::string unsafe = UnsafeIn(WithoutTelnet(server.Received()));
    FUZZ_CHECK(unsafe.empty(), unsafe);
  }
  return {calls, server.Received()};
}

// With interrupts and telnet commands the result depends on time: an interrupt drops the lines that wait behind a
// running command, and a changed option changes how later bytes are read.
bool DependsOnTime(int kind, std::string_view bytes) {
  return kind != 0 && bytes.find_first_of("\x03\xff") != std::string_view::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  kOptionLogLevel = 100;
  Input input(data, size);
  const int kind = input.Number(0, 3);
  const std::string sizes(input.Line());
  const std::string_view bytes = input.Rest();
  // A client whose first byte is IAC is not a program.
  if (kind == 0 && bytes.starts_with('\xff')) return 0;
  const Outcome whole = RunClient(kind, bytes, "");
  if (sizes.empty()) return 0;
  const Outcome pieces = RunClient(kind, bytes, sizes);
  if (DependsOnTime(kind, bytes)) return 0;
  FUZZ_CHECK_EQUAL(pieces.calls, whole.calls);
  if (kind == 0) FUZZ_CHECK_EQUAL(pieces.received, whole.received);
  return 0;
}
