#include "encd/output/push_stream.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "klbase/log.h"

namespace encd {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr std::size_t kMaxPending = 1 << 20;  // bytes handed to the muxer, not yet sent: above 1 s at the top bitrate
// A stream 5 s behind is not live any more. 128 MiB hold the longest delay at the highest bitrate.
constexpr PacketQueue::Limits kQueue{milliseconds(5000), 128 << 20};
constexpr milliseconds kStalled{5000};  // a server that takes nothing for this long counts as gone
constexpr milliseconds kReconnectLimit{2000};
constexpr milliseconds kFirstBackoff{1000};
constexpr milliseconds kMaxBackoff{10'000};
constexpr milliseconds kPoll{20};  // between looks at the connection or a full output
constexpr milliseconds kTick{100};
constexpr milliseconds kFarewell{300};  // for "delete stream" to reach the server

MuxPipeline::Layout RtmpLayout() {
  return {"flvmux name=mux streamable=true ! rtmp2sink name=server sync=false async=false chunk-size=4096", "video",
          "audio"};
}

// Bytes sent to the server after it has accepted the stream; 0 before. The sink connects on a thread of its own and
// has no message for the success, so its statistics are asked.
guint64 BytesSent(GstElement* server) {
  GstStructure* stats = nullptr;
  g_object_get(server, "stats", &stats, nullptr);
  if (stats == nullptr) return 0;
  guint64 bytes = 0;
  gst_structure_get_uint64(stats, "out-bytes-total", &bytes);
  gst_structure_free(stats);
  return bytes;
}

std::string SetAddress(GstElement* server, const std::string& address) {
  GError* error = nullptr;
  if (gst_uri_handler_set_uri(GST_URI_HANDLER(server), address.c_str(), &error)) return "";
  std::string text = error != nullptr ? error->message : "not an RTMP address";
  g_clear_error(&error);
  return text;
}

}  // namespace

PushStream::PushStream(std::string id, std::string url, std::string key, std::function<void()> request_keyframe)
    : id_(std::move(id)),
      url_(std::move(url)),
      key_(std::move(key)),
      request_keyframe_(std::move(request_keyframe)),
      queue_(std::make_shared<PacketQueue>(Tracks{.video = true, .audio = true}, kQueue)),
      backoff_(kFirstBackoff) {}

PushStream::~PushStream() {
  RequestStop();
  if (thread_.joinable()) thread_.join();
}

void PushStream::RequestStop() {
  {
    const absl::MutexLock lock(&mutex_);
    stop_ = true;
    stop_changed_.SignalAll();
  }
  queue_->Close();
}

std::string PushStream::Connect(milliseconds limit) {
  try {
    auto mux = std::make_unique<MuxPipeline>(RtmpLayout(), Tracks{.video = true, .audio = true}, kMaxPending);
    const auto server = mux->pipeline().Find("server");
    std::string error = SetAddress(server.get(), key_.empty() ? url_ : url_ + "/" + key_);
    if (error.empty()) error = WaitConnected(*mux, limit);
    if (!error.empty()) return WithoutKey(error);
    mux_ = std::move(mux);
  } catch (const std::runtime_error& e) {
    return e.what();
  }
  connected_ = true;
  ++connections_;
  return "";
}

std::string PushStream::WaitConnected(MuxPipeline& mux, milliseconds limit) {
  const auto deadline = steady_clock::now() + limit;
  const auto server = mux.pipeline().Find("server");
  mux.pipeline().SetState(GST_STATE_PLAYING);  // does not wait for the connection
  while (mux.Error().empty()) {
    if (BytesSent(server.get()) > 0) return "";
    if (steady_clock::now() >= deadline)
      return "the server did not answer within " + std::to_string(limit.count()) + " ms";
    if (WaitForStop(kPoll)) return "stopped";
  }
  return mux.Error();
}

void PushStream::Start() {
  request_keyframe_();  // the queue begins with one; the next by itself may be 2 s away
  thread_ = std::thread([this] { Run(); });
}

void PushStream::Run() {
  while (!WaitForStop(milliseconds(0))) {
    if (mux_) {
      PushNext();
    } else {
      Reconnect();
    }
  }
  if (mux_) mux_->Finish(kFarewell);
  mux_.reset();
  connected_ = false;
}

void PushStream::PushNext() {
  const auto taken = queue_->Take(kTick);
  if (!taken.packet) {
    if (!mux_->Error().empty()) Break(mux_->Error());
    return;
  }
  if (taken.gap) mux_->CloseGap();
  const std::uint64_t before = mux_->Frames();
  auto result = mux_->Push(*taken.packet);
  // A slow server: the queue holds the packets that arrive meanwhile, and drops the old ones up to a keyframe.
  const auto deadline = steady_clock::now() + kStalled;
  while (result == MuxPipeline::PushResult::kBusy && steady_clock::now() < deadline) {
    if (WaitForStop(kPoll)) return;
    result = mux_->Push(*taken.packet);
  }
  if (result == MuxPipeline::PushResult::kBusy) return Break("the server takes no more data");
  if (result == MuxPipeline::PushResult::kBroken) return Break(mux_->Error());
  frames_ += mux_->Frames() - before;  // of what waited for the connection, it leaves out what comes before a keyframe
}

void PushStream::Break(const std::string& why) {
  KL_LOG(40, "stream %s to %s broke: %s; connecting again in %lld ms", id_.c_str(), url_.c_str(),
         WithoutKey(why.empty() ? "the output was closed" : why).c_str(), static_cast<long long>(backoff_.count()));
  connected_ = false;
  mux_.reset();
}

void PushStream::Reconnect() {
  if (WaitForStop(backoff_)) return;
  const std::string error = Connect(kReconnectLimit);
  if (error.empty()) {
    KL_LOG(30, "stream %s to %s is connected again", id_.c_str(), url_.c_str());
    backoff_ = kFirstBackoff;
    request_keyframe_();
    return;
  }
  backoff_ = std::min(backoff_ * 2, kMaxBackoff);
  KL_LOG(40, "stream %s to %s: %s; trying again in %lld ms", id_.c_str(), url_.c_str(), error.c_str(),
         static_cast<long long>(backoff_.count()));
}

// True when the stream is to stop; waits for that up to `limit`.
bool PushStream::WaitForStop(milliseconds limit) {
  const auto deadline = steady_clock::now() + limit;
  const absl::MutexLock lock(&mutex_);
  while (!stop_ && steady_clock::now() < deadline) stop_changed_.WaitUntil(&mutex_, deadline);
  return stop_;
}

// GStreamer's texts show the whole address; the key is the operator's secret and has no place in logs and replies.
std::string PushStream::WithoutKey(std::string text) const {
  if (key_.empty()) return text;
  for (auto at = text.find(key_); at != std::string::npos; at = text.find(key_, at + 3)) {
    text.replace(at, key_.size(), "***");
  }
  return text;
}

}  // namespace encd
