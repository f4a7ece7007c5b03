// A daemon that is not ours: gRPC's own server library, told no more than the wire's description says.
#ifndef PLATFORM_KLRPC_TESTING_FOREIGN_DAEMON_H_
#define PLATFORM_KLRPC_TESTING_FOREIGN_DAEMON_H_

#include <cstddef>
#include <memory>
#include <string>

namespace klrpc::testing {

// Serves subscriptions, neither numbers its messages nor keeps them, and lets no stream replace another. Any thread.
class ForeignDaemon {
 public:
  // `confirms`: it sends its initial metadata at once, and otherwise with the first message.
  ForeignDaemon(const std::string& address, bool confirms);
  ForeignDaemon(const ForeignDaemon&) = delete;
  ForeignDaemon& operator=(const ForeignDaemon&) = delete;
  ~ForeignDaemon();

  // Returns the number of streams that it goes to.
  std::size_t Publish(const std::string& topic, const std::string& payload);
  // Streams that stand.
  std::size_t Streams() const;

 private:
  class Impl;
  const std::unique_ptr<Impl> impl_;
};

}  // namespace klrpc::testing

#endif  // PLATFORM_KLRPC_TESTING_FOREIGN_DAEMON_H_
