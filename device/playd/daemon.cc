#include "playd/daemon.h"

namespace playd {

std::span<const device::NeededElement> NeededElements() {
  static constexpr device::NeededElement kNeeded[] = {
      {"appsrc", "gstreamer1.0-plugins-base"},       {"appsink", "gstreamer1.0-plugins-base"},
      {"uridecodebin", "gstreamer1.0-plugins-base"}, {"compositor", "gstreamer1.0-plugins-base"},
      {"audiomixer", "gstreamer1.0-plugins-base"},   {"videoconvertscale", "gstreamer1.0-plugins-base"},
      {"audioconvert", "gstreamer1.0-plugins-base"}, {"audioresample", "gstreamer1.0-plugins-base"},
      {"volume", "gstreamer1.0-plugins-base"},       {"scaletempo", "gstreamer1.0-plugins-good"},
      {"qtdemux", "gstreamer1.0-plugins-good"},      {"avdec_h264", "gstreamer1.0-libav"},
      {"pngenc", "gstreamer1.0-plugins-good"},       {"rtspsrc", "gstreamer1.0-plugins-good"},
      {"udpsrc", "gstreamer1.0-plugins-good"},       {"flvdemux", "gstreamer1.0-plugins-good"},
      {"rtmp2src", "gstreamer1.0-plugins-bad"},      {"srtsrc", "gstreamer1.0-plugins-bad"},
      {"tsdemux", "gstreamer1.0-plugins-bad"},
  };
  return kNeeded;
}

Daemon::Daemon(const Options& options)
    : canvas_(options.window),
      mixer_(options.audible),
      players_(canvas_, mixer_, publisher_, options.limits),
      service_(players_, canvas_) {
  server_ = device::ServeRequests(
      options.address,
      [this](const google::protobuf::Any& request, google::protobuf::Any& reply) {
        return service_.Handle(request, reply);
      },
      true);
  publisher_.Attach([server = server_.get()](const klrpc::v1::PubsubMessage& message) { server->Publish(message); });
}

Daemon::~Daemon() { Stop(std::chrono::hours(1)); }

bool Daemon::Stop(std::chrono::milliseconds limit) {
  // Players publish until their last moment, so the server goes after them.
  if (!players_.StopAll(limit)) return false;
  publisher_.Attach(nullptr);
  server_.reset();
  return true;
}

}  // namespace playd
