#include "console/transport/io_thread.h"

#include <malloc.h>
#include <signal.h>

#include <asio/post.hpp>
#include <future>
#include <memory>
#include <system_error>
#include <utility>

namespace cli::internal {

void IoThread::Start() {
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, &before);
  thread_ = std::thread([this] { io_.run(); });
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void IoThread::Stop() {
  work_.reset();
  io_.stop();
  if (thread_.joinable()) thread_.join();
}

void IoThread::Run(std::function<void()> begin, std::chrono::milliseconds limit) {
  const auto begun = std::make_shared<std::promise<void>>();
  asio::post(io_, [begin = std::move(begin), begun] {
    begin();
    begun->set_value();
  });
  begun->get_future().wait_for(limit);
}

void IoThread::TrimMemoryLater() {
  constexpr auto kCalm = std::chrono::seconds(5);
  if (std::exchange(trimming_, true)) return;
  trim_timer_.expires_after(kCalm);
  trim_timer_.async_wait([this](const std::error_code& error) {
    if (error) return;
    trimming_ = false;
    ::malloc_trim(0);
  });
}

void RecordsTeller::TellLater() {
  if (std::exchange(telling_, true)) return;
  timer_.expires_after(std::chrono::minutes(1));
  timer_.async_wait([this](const std::error_code& error) {
    if (error) return;
    telling_ = false;
    if (tell_()) TellLater();
  });
}

}  // namespace cli::internal
