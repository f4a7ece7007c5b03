// One command over a session, on TCP or on a Unix socket: from the line sent to the last byte of the answer.
//   bench_line PORT|PATH LINE END-OF-ANSWER COUNT [FIRST-LINE END-OF-ITS-ANSWER]
// The first line is sent once, before the others, and not measured.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "samples.h"

namespace {

constexpr int kAnswerTimeoutSeconds = 5;

// By plain calls: the test kit's TcpClient polls before each read, which would be measured too.
int ConnectToPort(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) return -1;
  const int on = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  return fd;
}

int ConnectToPath(const char* path) {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path, sizeof(address.sun_path) - 1);
  if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) return -1;
  return fd;
}

int Connect(const char* where) {
  const int fd = std::strchr(where, '/') == nullptr ? ConnectToPort(std::atoi(where)) : ConnectToPath(where);
  const timeval limit{kAnswerTimeoutSeconds, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
  return fd;
}

bool RoundTrip(int fd, std::string_view line, std::string_view end) {
  if (write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size())) return false;
  char buffer[4096];
  std::string answer;
  while (!std::string_view(answer).ends_with(end)) {
    const ssize_t got = read(fd, buffer, sizeof(buffer));
    if (got <= 0) return false;
    answer.append(buffer, static_cast<std::size_t>(got));
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5 && argc != 7) {
    std::fprintf(stderr, "usage: bench_line PORT|PATH LINE END-OF-ANSWER COUNT [FIRST-LINE END-OF-ITS-ANSWER]\n");
    return 2;
  }
  const int fd = Connect(argv[1]);
  if (fd < 0) {
    std::fprintf(stderr, "cannot connect to %s\n", argv[1]);
    return 1;
  }
  if (argc == 7 && !RoundTrip(fd, std::string(argv[5]) + "\r\n", argv[6])) {
    std::fprintf(stderr, "no answer to %s\n", argv[5]);
    return 1;
  }
  const std::string line = std::string(argv[2]) + "\r\n";
  return bench::MeasureAndPrint(static_cast<std::size_t>(std::atol(argv[4])),
                                [&] { return RoundTrip(fd, line, argv[3]); });
}
