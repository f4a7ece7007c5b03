// Many sessions at once, each running the same line over and over, the next one when the answer is complete.
//   bench_load PORT SESSIONS COMMANDS LINE END-OF-ANSWER
// Prints commands per second and the number of commands that got no answer.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr int kStallTimeoutMs = 10'000;  // the run ends after so long without an answer to any client

struct Client {
  int fd = -1;
  int left = 0;
  std::string answer;
};

// By plain calls: the test kit's TcpClient waits for one connection at a time, and this one thread serves them all.
int Connect(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0) return fd;
  std::perror("connect");
  std::exit(1);
}

bool Send(const Client& client, std::string_view line) {
  return write(client.fd, line.data(), line.size()) == static_cast<ssize_t>(line.size());
}

// Reads the available bytes and sends the next line when an answer is complete. Returns false when the client has all
// its answers or its connection broke.
bool Advance(Client& client, std::string_view line, std::string_view end) {
  char buffer[4096];
  const ssize_t got = read(client.fd, buffer, sizeof(buffer));
  if (got <= 0) return false;
  client.answer.append(buffer, static_cast<std::size_t>(got));
  if (!std::string_view(client.answer).ends_with(end)) return true;
  client.answer.clear();
  return --client.left > 0 && Send(client, line);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 6) {
    std::fprintf(stderr, "usage: bench_load PORT SESSIONS COMMANDS LINE END-OF-ANSWER\n");
    return 2;
  }
  const int commands = std::atoi(argv[3]);
  const std::string line = std::string(argv[4]) + "\n";
  std::vector<Client> clients(static_cast<std::size_t>(std::atoi(argv[2])));
  const int poller = epoll_create1(EPOLL_CLOEXEC);
  const auto start = std::chrono::steady_clock::now();
  for (Client& client : clients) {
    client.fd = Connect(std::atoi(argv[1]));
    client.left = commands;
    epoll_event event{EPOLLIN, {&client}};
    epoll_ctl(poller, EPOLL_CTL_ADD, client.fd, &event);
    if (!Send(client, line)) return 1;
  }
  std::size_t open = clients.size();
  while (open > 0) {
    epoll_event events[64];
    const int count = epoll_wait(poller, events, 64, kStallTimeoutMs);
    if (count <= 0) break;
    for (int i = 0; i < count; ++i) {
      Client& client = *static_cast<Client*>(events[i].data.ptr);
      if (Advance(client, line, argv[5])) continue;
      epoll_ctl(poller, EPOLL_CTL_DEL, client.fd, nullptr);
      --open;
    }
  }
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  long unanswered = 0;
  for (const Client& client : clients) {
    unanswered += client.left;
    close(client.fd);
  }
  const long answered = static_cast<long>(clients.size()) * commands - unanswered;
  std::printf("{\"commands_per_second\": %.0f, \"errors\": %ld}\n", static_cast<double>(answered) / seconds,
              unanswered);
  return 0;
}
