// Baseline: a round trip over a connected pair of unix sockets, one write and one read each way.
#include <sys/socket.h>
#include <unistd.h>

#include <array>

#include "child.h"
#include "samples.h"

namespace {

using Buffer = std::array<char, bench::kPayloadBytes>;

void EchoUntilClosed(int fd) {
  Buffer buffer;
  for (ssize_t got = 0; (got = read(fd, buffer.data(), buffer.size())) > 0;) {
    if (write(fd, buffer.data(), static_cast<std::size_t>(got)) != got) return;
  }
}

bool RoundTrip(int fd) {
  Buffer buffer{};
  if (write(fd, buffer.data(), buffer.size()) != static_cast<ssize_t>(buffer.size())) return false;
  std::size_t have = 0;
  while (have < buffer.size()) {
    const ssize_t got = read(fd, buffer.data() + have, buffer.size() - have);
    if (got <= 0) return false;
    have += static_cast<std::size_t>(got);
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  int fds[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) return 1;
  bench::Child server([&fds](const auto& ready) {
    close(fds[0]);
    ready();
    EchoUntilClosed(fds[1]);
  });
  close(fds[1]);
  return bench::MeasureAndPrint(
      bench::CountArgument(argc, argv, 20'000), [&fds] { return RoundTrip(fds[0]); }, &server);
}
