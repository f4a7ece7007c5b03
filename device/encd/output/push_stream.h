// A live stream pushed to a server.
#ifndef DEVICE_ENCD_OUTPUT_PUSH_STREAM_H_
#define DEVICE_ENCD_OUTPUT_PUSH_STREAM_H_

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "encd/output/mux_pipeline.h"
#include "encd/output/push_target.h"
#include "encd/packet/packet_queue.h"
#include "klbase/steady_cond_var.h"

namespace encd {

// Pushes the packets of queue() on a thread of its own. A connection that breaks is made again, after 1 s at first
// and up to 10 s later, until the stream is destroyed; that takes less than a second, also with a server that hangs.
class PushStream {
 public:
  // `request_keyframe` is called whenever a new connection needs a
  // picture to start with; it must be callable until destruction, on any thread.
  PushStream(std::string id, PushTarget target, std::function<void()> request_keyframe);
  PushStream(const PushStream&) = delete;
  PushStream& operator=(const PushStream&) = delete;
  ~PushStream();

  // Makes the first connection: "" when the server accepts the stream within `limit`, else why not. On success call
  // Start(), which begins to push. Each once, on one thread.
  std::string Connect(std::chrono::milliseconds limit);
  void Start();

  // Tells the thread to end, so that several streams end at the same time. The destructor does it too.
  void RequestStop();

  const std::string& id() const { return id_; }
  const std::shared_ptr<PacketQueue>& queue() { return queue_; }
  bool Connected() const { return connected_; }
  std::uint64_t Frames() const { return frames_; }            // pictures pushed, over all connections
  std::uint64_t Connections() const { return connections_; }  // made so far

 private:
  void Run();
  void PushNext();
  void Break(const std::string& why);
  void Reconnect();
  bool WaitForStop(std::chrono::milliseconds limit);
  std::string WaitConnected(MuxPipeline& mux, std::chrono::milliseconds limit);

  const std::string id_;
  const PushTarget target_;
  const std::function<void()> request_keyframe_;
  const std::shared_ptr<PacketQueue> queue_;

  // Used by the connecting thread first, then only by thread_.
  std::unique_ptr<MuxPipeline> mux_;
  std::chrono::milliseconds backoff_;

  std::atomic<bool> connected_{false};
  std::atomic<std::uint64_t> frames_{0};
  std::atomic<std::uint64_t> connections_{0};
  absl::Mutex mutex_;
  klbase::SteadyCondVar stop_changed_;
  bool stop_ ABSL_GUARDED_BY(mutex_) = false;
  std::thread thread_;
};

}  // namespace encd

#endif  // DEVICE_ENCD_OUTPUT_PUSH_STREAM_H_
