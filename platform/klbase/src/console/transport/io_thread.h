// The thread on which a server's connections are served.
#ifndef KLBASE_CONSOLE_TRANSPORT_IO_THREAD_H_
#define KLBASE_CONSOLE_TRANSPORT_IO_THREAD_H_

// clang-format off: must come first
#include "console/asio_setup.h"
// clang-format on

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <functional>
#include <optional>
#include <thread>
#include <utility>

namespace cli::internal {

// Owned by the server, before everything that uses its context.
class IoThread {
 public:
  IoThread() = default;
  // Stop() must have been called.
  ~IoThread() = default;
  IoThread(const IoThread&) = delete;
  IoThread& operator=(const IoThread&) = delete;

  asio::io_context& Io() { return io_; }

  // The thread handles no signals: a handler that stops the console would wait for the thread that it runs on.
  void Start();
  // Ends the thread. Not on the thread itself; again as often as you like.
  void Stop();
  // Calls `begin` on the thread, and returns when it has returned, or after `limit`: a process that exits waits for no
  // I/O thread that hangs. Not on the thread itself.
  void Run(std::function<void()> begin, std::chrono::milliseconds limit);

  // What sessions have used stays with the allocator, which gives little of it back by itself: it is asked to a
  // while after the first call. On the thread.
  void TrimMemoryLater();

 private:
  asio::io_context io_{1};
  std::optional<asio::executor_work_guard<asio::io_context::executor_type>> work_{asio::make_work_guard(io_)};
  asio::steady_timer trim_timer_{io_};
  bool trimming_ = false;
  std::thread thread_;
};

// Tells the last counts of collapsed records also when nothing comes behind a storm. On the I/O thread.
class RecordsTeller {
 public:
  // `tell` returns whether a count still waits for its minute to end.
  RecordsTeller(asio::io_context& io, std::function<bool()> tell) : tell_(std::move(tell)), timer_(io) {}
  // Something was recorded, perhaps.
  void TellLater();

 private:
  const std::function<bool()> tell_;
  asio::steady_timer timer_;
  bool telling_ = false;
};

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_TRANSPORT_IO_THREAD_H_
