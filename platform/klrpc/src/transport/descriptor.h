// An open file descriptor with an owner.
#ifndef KLRPC_TRANSPORT_DESCRIPTOR_H_
#define KLRPC_TRANSPORT_DESCRIPTOR_H_

#include <unistd.h>

#include <utility>

namespace klrpc {

class Descriptor {
 public:
  Descriptor() = default;
  // Owns `fd`; -1 for none.
  explicit Descriptor(int fd) : fd_(fd) {}
  Descriptor(Descriptor&& other) noexcept : fd_(other.Release()) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~Descriptor() {
    if (fd_ >= 0) close(fd_);
  }

  int Get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  // Hands it over.
  int Release() { return std::exchange(fd_, -1); }

 private:
  int fd_ = -1;
};

}  // namespace klrpc

#endif  // KLRPC_TRANSPORT_DESCRIPTOR_H_
