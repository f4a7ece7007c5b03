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

}  // namespace

PushStream::PushStream(std::string id, PushTarget target, std::function<void()> request_keyframe)
    : id_(std::move(id)),
      target_(std::move(target)),
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
    auto mux = std::make_unique<MuxPipeline>(target_.Layout(), Tracks{.video = true, .audio = true}, kMaxPending);
    std::string error = target_.SetAddress(mux->pipeline().Find("server").get());
    if (error.empty()) error = WaitConnected(*mux, limit);
    if (!error.empty()) return target_.WithoutKey(error);
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
    if (target_.Connected(server.get())) return "";
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
    // An SRT sink learns of a lost connection only when it writes, and that may be a minute away.
    if (!mux_->Error().empty()) {
      Break(mux_->Error());
    } else if (!target_.Connected(mux_->pipeline().Find("server").get())) {
      Break("the connection was lost");
    }
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
  KL_LOG(40, "stream %s to %s broke: %s; connecting again in %lld ms", id_.c_str(), target_.Shown().c_str(),
         target_.WithoutKey(why.empty() ? "the output was closed" : why).c_str(),
         static_cast<long long>(backoff_.count()));
  connected_ = false;
  mux_.reset();
}

void PushStream::Reconnect() {
  if (WaitForStop(backoff_)) return;
  const std::string error = Connect(kReconnectLimit);
  if (error.empty()) {
    KL_LOG(30, "stream %s to %s is connected again", id_.c_str(), target_.Shown().c_str());
    backoff_ = kFirstBackoff;
    request_keyframe_();
    return;
  }
  backoff_ = std::min(backoff_ * 2, kMaxBackoff);
  KL_LOG(40, "stream %s to %s: %s; trying again in %lld ms", id_.c_str(), target_.Shown().c_str(), error.c_str(),
         static_cast<long long>(backoff_.count()));
}

// True when the stream is to stop; waits for that up to `limit`.
bool PushStream::WaitForStop(milliseconds limit) {
  const auto deadline = steady_clock::now() + limit;
  const absl::MutexLock lock(&mutex_);
  while (!stop_ && steady_clock::now() < deadline) stop_changed_.WaitUntil(&mutex_, deadline);
  return stop_;
}

}  // namespace encd
