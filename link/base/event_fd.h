// A flag between threads that poll() sees.
#ifndef LINK_BASE_EVENT_FD_H_
#define LINK_BASE_EVENT_FD_H_

#include <chrono>
#include <initializer_list>

namespace vexlink {

// Any thread.
class EventFd {
 public:
  // Throws std::system_error where the process may open no more files.
  EventFd();
  EventFd(const EventFd&) = delete;
  EventFd& operator=(const EventFd&) = delete;
  ~EventFd();

  // Readable from now on, until Clear().
  void Set();
  void Clear();
  bool IsSet() const;
  int Fd() const { return fd_; }

 private:
  int fd_;
};

// Whether one of `events` is set, after a wait of `limit` at most.
bool WaitForOne(std::initializer_list<const EventFd*> events, std::chrono::milliseconds limit);

}  // namespace vexlink

#endif  // LINK_BASE_EVENT_FD_H_
