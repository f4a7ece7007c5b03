#include "link/base/event_fd.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <system_error>
#include <vector>

namespace vexlink {

EventFd::EventFd() : fd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (fd_ < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
}

EventFd::~EventFd() { ::close(fd_); }

void EventFd::Set() {
  const std::uint64_t one = 1;
  if (::write(fd_, &one, sizeof one) < 0) {
    // The counter is full, so the flag is set.
  }
}

void EventFd::Clear() {
  std::uint64_t count = 0;
  if (::read(fd_, &count, sizeof count) < 0) {
    // It wasn't set.
  }
}

bool EventFd::IsSet() const { return WaitForOne({this}, std::chrono::milliseconds(0)); }

bool WaitForOne(std::initializer_list<const EventFd*> events, std::chrono::milliseconds limit) {
  std::vector<pollfd> ready;
  for (const EventFd* event : events) ready.push_back({event->Fd(), POLLIN, 0});
  return ::poll(ready.data(), ready.size(),
                static_cast<int>(std::max<std::chrono::milliseconds::rep>(limit.count(), 0))) > 0;
}

}  // namespace vexlink
