#include "encd/output/push_target.h"

#include <memory>
#include <utility>

namespace encd {
namespace {

constexpr char kSrt[] = "srt://";

struct UriUnref {
  void operator()(GstUri* uri) const { gst_uri_unref(uri); }
};
using UriPtr = std::unique_ptr<GstUri, UriUnref>;

struct StructureFree {
  void operator()(GstStructure* structure) const { gst_structure_free(structure); }
};

bool IsSrt(const std::string& url) { return url.starts_with(kSrt); }

// Without a host, or in another mode than "caller", the element would wait for somebody to fetch the stream.
bool NamesAPeer(const std::string& url) {
  const UriPtr uri(gst_uri_from_string(url.c_str()));
  if (!uri || gst_uri_get_port(uri.get()) == GST_URI_NO_PORT) return false;
  const gchar* host = gst_uri_get_host(uri.get());
  const gchar* mode = gst_uri_get_query_value(uri.get(), "mode");
  return host != nullptr && *host != '\0' && (mode == nullptr || std::string(mode) == "caller");
}

// The sinks connect by themselves and have no message for the success, so their statistics are asked.
std::unique_ptr<GstStructure, StructureFree> Statistics(GstElement* server) {
  GstStructure* stats = nullptr;
  g_object_get(server, "stats", &stats, nullptr);
  return std::unique_ptr<GstStructure, StructureFree>(stats);
}

}  // namespace

PushTarget::PushTarget(std::string url, std::string key)
    : url_(std::move(url)), key_(std::move(key)), srt_(IsSrt(url_)) {}

std::string PushTarget::Check(const std::string& url) {
  const std::string use = "use rtmp://HOST[:PORT]/APP, rtmps://… or srt://HOST:PORT";
  if (url.starts_with("rtmp://") || url.starts_with("rtmps://")) return "";
  if (!IsSrt(url)) return "url " + url + " is neither an RTMP nor an SRT address; " + use;
  if (NamesAPeer(url)) return "";
  return "url " + PushTarget(url, "").Shown() + " names no host and port to push to; use srt://HOST:PORT";
}

std::string PushTarget::Shown() const { return srt_ ? url_.substr(0, url_.find('?')) : url_; }

std::string PushTarget::WithoutKey(std::string text) const {
  if (key_.empty()) return text;
  for (auto at = text.find(key_); at != std::string::npos; at = text.find(key_, at + 3)) {
    text.replace(at, key_.size(), "***");
  }
  return text;
}

// A receiver of MPEG-TS may join at any keyframe, so each comes with its parameter sets. Seven packets of the transport
// stream are what a packet of SRT holds. Lost connections are made again here, not by the sink, which would go on with
// the middle of a picture.
MuxPipeline::Layout PushTarget::Layout() const {
  if (srt_) {
    return {
        .output = "mpegtsmux name=mux alignment=7 ! srtsink name=server sync=false async=false auto-reconnect=false",
        .video_parser = "h264parse config-interval=-1 ! ",
        .audio_parser = "aacparse ! audio/mpeg,stream-format=adts ! "};
  }
  return {.output = "flvmux name=mux streamable=true ! rtmp2sink name=server sync=false async=false chunk-size=4096",
          .video_pad = "video",
          .audio_pad = "audio"};
}

std::string PushTarget::SetAddress(GstElement* server) const {
  const std::string address = srt_ || key_.empty() ? url_ : url_ + "/" + key_;
  GError* error = nullptr;
  if (!gst_uri_handler_set_uri(GST_URI_HANDLER(server), address.c_str(), &error)) {
    std::string text = error != nullptr ? error->message : "not an address";
    g_clear_error(&error);
    return text;
  }
  if (srt_ && !key_.empty()) g_object_set(server, "streamid", key_.c_str(), nullptr);
  return "";
}

// An RTMP sink has sent bytes of the stream only after the server has accepted it; an SRT socket has the latency that
// the two sides agreed on only while it is connected.
bool PushTarget::Connected(GstElement* server) const {
  const auto stats = Statistics(server);
  if (!stats) return false;
  if (srt_) return gst_structure_has_field(stats.get(), "negotiated-latency-ms");
  guint64 bytes = 0;
  gst_structure_get_uint64(stats.get(), "out-bytes-total", &bytes);
  return bytes > 0;
}

}  // namespace encd
