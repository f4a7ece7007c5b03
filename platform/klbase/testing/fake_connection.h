// A connection without a socket, for the tests of the server's parts.
#ifndef PLATFORM_KLBASE_TESTING_FAKE_CONNECTION_H_
#define PLATFORM_KLBASE_TESTING_FAKE_CONNECTION_H_

#include <unistd.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "console/tcp/access/candidate.h"
#include "console/transport/served_connection.h"

namespace cli::internal {

// The test sets its state and reads the calls that it got.
class FakeConnection : public ServedConnection, public Candidate, public std::enable_shared_from_this<FakeConnection> {
 public:
  // One of `open`, which it leaves when it closes.
  static std::shared_ptr<FakeConnection> In(ServedConnections& open) {
    auto connection = std::make_shared<FakeConnection>();
    connection->open_ = &open;
    open.insert(connection);
    return connection;
  }

  const std::string& Peer() const override { return peer; }
  const std::string& Address() const override { return address; }
  std::optional<uid_t> User() const override { return user; }
  Standing StandingBeforeLogin() override { return standing; }
  bool LoggedIn() const override { return logged_in; }
  bool CommandRunning() const override { return command_running; }
  OutputBuffer::Clock::duration StalledFor() const override { return stalled_for; }
  void FlushOutput() override { ++flushes; }
  void Finish(std::string_view notice) override {
    farewell = notice;
    if (closes_when_finished) Leave();
  }
  void Abort(const char* why) override {
    aborted_for = why;
    Leave();
  }
  void Abandon() override {}

  std::string peer = "192.0.2.1:4321";
  std::string address = "192.0.2.1";
  std::optional<uid_t> user = ::geteuid();
  Standing standing = Standing::kSilent;
  bool logged_in = false;
  bool command_running = false;
  bool closes_when_finished = false;
  std::chrono::milliseconds stalled_for{0};

  int flushes = 0;
  std::string farewell;
  std::string aborted_for;

 private:
  void Leave() {
    if (open_ != nullptr) open_->erase(shared_from_this());
  }

  ServedConnections* open_ = nullptr;
};

}  // namespace cli::internal

#endif  // PLATFORM_KLBASE_TESTING_FAKE_CONNECTION_H_
