#include "transport/unix_connect.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <stop_token>
#include <utility>

#include "klbase/cancellation.h"

namespace klrpc {
namespace {

using std::chrono::steady_clock;

// How long somebody who gives the wait up goes on waiting: a blocking connect() has no other end.
constexpr steady_clock::duration kLongestStep = std::chrono::milliseconds(50);

int Connect(int fd, const UnixName& name) { return connect(fd, name.Get(), name.size) == 0 ? 0 : errno; }

// poll() doesn't tell of room in another's backlog. connect() on a blocking socket waits for it, as long as a
// transmission may take.
int ConnectWithin(int fd, const UnixName& name, steady_clock::duration time) {
  using std::chrono::microseconds;
  const auto left = std::chrono::ceil<microseconds>(time).count();
  timeval limit{};
  limit.tv_sec = left / 1'000'000;
  limit.tv_usec = left % 1'000'000;
  if (setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) != 0) return errno;
  const int flags = fcntl(fd, F_GETFL);
  fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
  const int error = Connect(fd, name);
  fcntl(fd, F_SETFL, flags);
  return error;
}

}  // namespace

UnixConnection ConnectToUnix(const UnixName& name, steady_clock::time_point patience) {
  UnixConnection made{Descriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)), 0};
  if (!made.socket) return {Descriptor(), errno};
  const std::stop_token given_up = klbase::CurrentStopToken();
  const auto longest_step = given_up.stop_possible() ? kLongestStep : steady_clock::duration::max();
  made.error = Connect(made.socket.Get(), name);
  while (made.error == EAGAIN || made.error == EINTR) {
    const auto now = steady_clock::now();
    if (now >= patience || given_up.stop_requested()) break;
    made.error = ConnectWithin(made.socket.Get(), name, std::min(patience - now, longest_step));
  }
  if (made.error != 0) made.socket = Descriptor();
  return made;
}

}  // namespace klrpc
