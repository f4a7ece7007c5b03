// Where a stream can be pushed to, and what differs between the protocols.
#ifndef DEVICE_ENCD_OUTPUT_PUSH_TARGET_H_
#define DEVICE_ENCD_OUTPUT_PUSH_TARGET_H_

#include <string>

#include "base/gst.h"
#include "encd/output/mux_pipeline.h"

namespace encd {

// An address, "rtmp://HOST[:PORT]/APP", "rtmps://…" or "srt://HOST:PORT[?latency=MS&…]", and the key of the stream
// there: RTMP has it behind the address, SRT as its stream id. Immutable.
class PushTarget {
 public:
  PushTarget(std::string url, std::string key);

  // "" when a stream can be pushed to `url`, else a text for the operator that says what can.
  static std::string Check(const std::string& url);

  // The address without what may be secret: the words behind the "?" of an SRT address hold its passphrase.
  std::string Shown() const;

  // The text with the key blotted out: GStreamer's show the whole address.
  std::string WithoutKey(std::string text) const;

  // From the muxer to the element "server".
  MuxPipeline::Layout Layout() const;

  // Tells the element where to connect, which it does once its pipeline plays. "" or why it can't.
  std::string SetAddress(GstElement* server) const;

  // True while the element has a connection that the other side has accepted.
  bool Connected(GstElement* server) const;

 private:
  const std::string url_;
  const std::string key_;
  const bool srt_;
};

}  // namespace encd

#endif  // DEVICE_ENCD_OUTPUT_PUSH_TARGET_H_
