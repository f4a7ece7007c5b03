// A small HTTP server for tests: one file, which can break off in the middle.
#ifndef DEVICE_TESTING_HTTP_FILE_H_
#define DEVICE_TESTING_HTTP_FILE_H_

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <thread>

namespace device::testing {

// Answers every request with the file, on a free port of the loopback interface. With a smaller `cut` it promises all
// of the file, stops after `cut` bytes, and on Break() closes and takes no more connections.
class HttpFile {
 public:
  HttpFile(std::string content, std::size_t cut)
      : content_(std::move(content)), cut_(cut), listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    if (bind(listener_, reinterpret_cast<sockaddr*>(&address), size) != 0 || listen(listener_, 5) != 0 ||
        getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
      throw std::runtime_error("no port to serve on");
    }
    url_ = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/clip.mp4";
    thread_ = std::thread(&HttpFile::Serve, this);
  }
  HttpFile(const HttpFile&) = delete;
  HttpFile& operator=(const HttpFile&) = delete;
  // Its clients must be gone.
  ~HttpFile() {
    Break();
    thread_.join();
    close(listener_);
  }

  const std::string& Url() const { return url_; }

  void Break() {
    broken_ = true;
    shutdown(listener_, SHUT_RDWR);
  }

 private:
  void Serve() {
    for (;;) {
      const int client = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
      if (client < 0) return;
      Answer(client);
      while (cut_ < content_.size() && !broken_) std::this_thread::yield();
      close(client);
    }
  }

  void Answer(int client) const {
    std::string request;
    char part[1024];
    while (request.find("\r\n\r\n") == std::string::npos) {
      const ssize_t size = recv(client, part, sizeof(part), 0);
      if (size <= 0) return;
      request.append(part, static_cast<std::size_t>(size));
    }
    std::string answer = "HTTP/1.1 200 OK\r\nContent-Type: video/mp4\r\nConnection: close\r\nContent-Length: " +
                         std::to_string(content_.size()) + "\r\n\r\n" + content_.substr(0, cut_);
    for (std::size_t at = 0; at < answer.size();) {
      const ssize_t size = send(client, answer.data() + at, answer.size() - at, MSG_NOSIGNAL);
      if (size <= 0) return;
      at += static_cast<std::size_t>(size);
    }
  }

  const std::string content_;
  const std::size_t cut_;
  const int listener_;
  std::atomic<bool> broken_{false};
  std::string url_;
  std::thread thread_;
};

}  // namespace device::testing

#endif  // DEVICE_TESTING_HTTP_FILE_H_
