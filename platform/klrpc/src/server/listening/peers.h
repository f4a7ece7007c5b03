// The other ends of connections.
//
// gRPC names a connection that it was handed by its descriptor, "fd:7", and can't tell whose it is.
#ifndef KLRPC_SERVER_LISTENING_PEERS_H_
#define KLRPC_SERVER_LISTENING_PEERS_H_

#include <memory>
#include <string>
#include <string_view>

#include "klbase/collapsed_records.h"

namespace klrpc {

// One server's records of messages that it refused.
using RefusedMessages = std::shared_ptr<klbase::CollapsedRecords>;
RefusedMessages MakeRefusedMessages();

// The peer of one connection, known to this process while it lives. Any thread.
class KnownPeer {
 public:
  // `text` is how records name it.
  KnownPeer(int fd, const std::string& text, RefusedMessages records);
  KnownPeer(const KnownPeer&) = delete;
  KnownPeer& operator=(const KnownPeer&) = delete;
  // The descriptor may be another connection's by now: that one stays known.
  ~KnownPeer();

  struct Entry {
    std::string text;
    RefusedMessages records;
  };

 private:
  const int fd_;
  const std::shared_ptr<const Entry> entry_;
};

// "user id 0 (process 4711)" for the "fd:7" of a known peer; any other name as it stands.
std::string DescribePeer(std::string_view name);

// Writes the record of a call that gRPC gave up because its connection's messages had no more room.
void ReportNoRoom(std::string_view name);

}  // namespace klrpc

#endif  // KLRPC_SERVER_LISTENING_PEERS_H_
