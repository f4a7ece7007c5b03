// Live streams for tests: red pictures of 320x240 and a tone.
#ifndef DEVICE_TESTING_LIVE_STREAMS_H_
#define DEVICE_TESTING_LIVE_STREAMS_H_

#include <string>

#include "base/gst.h"
#include "platform/testing/child_process.h"

namespace device::testing {

// A real RTSP server, GStreamer's, as a child on a free port of the loopback interface.
class RtspServer {
 public:
  // Serves when the constructor returns. Throws std::runtime_error when it can't be started.
  RtspServer();

  std::string Url() const { return Url("live"); }
  std::string Url(const std::string& stream) const { return "rtsp://127.0.0.1:" + port_ + "/" + stream; }

 private:
  vextest::ChildProcess server_;
  std::string port_;
};

// Sends, in this process, until it is destroyed. Its addresses are for a player of the same machine.
class StreamSender {
 public:
  // In MPEG transport packets to a UDP port, which need not be taken.
  static StreamSender Udp(int port);
  // The same without any key picture.
  static StreamSender UdpWithoutKeyPictures(int port);
  // In the same to whoever connects to a SRT port.
  static StreamSender Srt(int port);
  // To a RTMP server, under this address.
  static StreamSender Rtmp(const std::string& url);

 private:
  StreamSender(const std::string& muxer, const std::string& sink_properties, const std::string& address_property,
               const std::string& address, bool key_pictures = true);

  Pipeline pipeline_;
};

// Of UDP and free when it was asked for.
int FreeUdpPort();

}  // namespace device::testing

#endif  // DEVICE_TESTING_LIVE_STREAMS_H_
