// An HTTP/2 server by hand: what a gRPC server does at a moment of its own choosing, it does at the test's.
#ifndef PLATFORM_KLRPC_TESTING_RAW_SERVER_H_
#define PLATFORM_KLRPC_TESTING_RAW_SERVER_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "transport/descriptor.h"

namespace klrpc::testing {

// One connection, on a thread of its own.
class RawConnection {
 public:
  // Announces that requests after that of the stream `last` are left unread.
  void GoAway(std::uint32_t last) const;
  // The initial metadata of an answer, one message of it, and its end with the status OK.
  void Begin(std::uint32_t stream) const;
  void Send(std::uint32_t stream, const std::string& message) const;
  void End(std::uint32_t stream) const;

  const int number;  // of the connection, from 1

  RawConnection(int count, Descriptor socket) : number(count), socket_(std::move(socket)) {}
  // Calls `asked` with the stream of each request when all of it is there; returns at the end of the connection.
  void Serve(const std::function<void(const RawConnection&, std::uint32_t)>& asked) const;
  void Cut() const;

 private:
  bool Read(std::string& bytes) const;
  void Write(std::uint8_t type, std::uint8_t flags, std::uint32_t stream, const std::string& payload) const;

  const Descriptor socket_;
};

// Listens on a local address with the smallest backlog. Cuts its connections off at its end.
class RawServer {
 public:
  // Runs on the connections' threads.
  using Asked = std::function<void(const RawConnection& connection, std::uint32_t stream)>;

  RawServer(const std::string& address, Asked asked);
  RawServer(const RawServer&) = delete;
  RawServer& operator=(const RawServer&) = delete;
  ~RawServer();

  // Accepts from now on.
  void Start();

 private:
  struct Served {
    std::unique_ptr<const RawConnection> connection;
    std::thread thread;
  };

  void AcceptAll();

  const Asked asked_;
  const Descriptor listening_;
  std::vector<Served> served_;  // the accepting thread's, until that has ended
  std::thread accepting_;
};

}  // namespace klrpc::testing

#endif  // PLATFORM_KLRPC_TESTING_RAW_SERVER_H_
