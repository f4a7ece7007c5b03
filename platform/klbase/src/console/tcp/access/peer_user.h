// The user at the other end of a connection from this machine, as the kernel knows it.
#ifndef KLBASE_CONSOLE_TCP_ACCESS_PEER_USER_H_
#define KLBASE_CONSOLE_TCP_ACCESS_PEER_USER_H_

// clang-format off: must come first
#include "console/asio_setup.h"
// clang-format on

#include <sys/types.h>

#include <asio/ip/address.hpp>
#include <asio/ip/tcp.hpp>
#include <optional>
#include <string>

namespace cli::internal {

// asio calls only ::1 a loopback address of IPv6; the kernel takes ::ffff:127.0.0.1 for 127.0.0.1.
bool IsLoopback(const asio::ip::address& address);

// The owner of the socket at `peer` that is connected to `own`. None when no process of this network namespace has it
// (any more): a socket that its process has closed is still known to the kernel, but belongs to nobody. Takes some
// microseconds; where the kernel offers only the text files below /proc/net, milliseconds. Any thread.
std::optional<uid_t> UserOfPeer(const asio::ip::tcp::endpoint& peer, const asio::ip::tcp::endpoint& own);

// The two ways of asking, for tests.
std::optional<uid_t> UserFromSockDiag(const asio::ip::tcp::endpoint& peer, const asio::ip::tcp::endpoint& own,
                                      bool* asked);
std::optional<uid_t> UserFromTable(const std::string& file, const asio::ip::tcp::endpoint& peer,
                                   const asio::ip::tcp::endpoint& own);

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_TCP_ACCESS_PEER_USER_H_
