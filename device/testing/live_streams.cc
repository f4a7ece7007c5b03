#include "testing/live_streams.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

namespace device::testing {
namespace {

// A key picture each half second, so that a test waits no longer for the first one.
std::string Streams(const std::string& muxer) {
  return muxer +
         " videotestsrc is-live=true pattern=solid-color foreground-color=0xffff0000 "
         "! video/x-raw,format=I420,width=320,height=240,framerate=25/1 "
         "! x264enc tune=zerolatency speed-preset=ultrafast key-int-max=12 ! h264parse config-interval=-1 "
         "name=pictures "
         "! queue ! mux. "
         "audiotestsrc is-live=true ! audioconvert ! avenc_aac ! aacparse ! queue ! mux.";
}

GstPadProbeReturn DropKeyPicture(GstPad*, GstPadProbeInfo* info, gpointer) {
  return FactsOf(GST_PAD_PROBE_INFO_BUFFER(info)).keyframe ? GST_PAD_PROBE_DROP : GST_PAD_PROBE_OK;
}

}  // namespace

RtspServer::RtspServer() : server_({"/usr/bin/python3", RTSP_SERVER_PROGRAM}) {
  if (!server_.WaitFor("\n")) throw std::runtime_error("the RTSP server does not start: " + server_.Errors());
  port_ = server_.Output().substr(0, server_.Output().find('\n'));
}

StreamSender::StreamSender(const std::string& muxer, const std::string& sink, const std::string& property,
                           const std::string& address, bool key_pictures)
    : pipeline_(Streams(muxer + " name=mux ! " + sink + " name=sink")) {
  const PadPtr pictures(gst_element_get_static_pad(pipeline_.Find("pictures").get(), "src"));
  if (!key_pictures) {
    gst_pad_add_probe(pictures.get(), GST_PAD_PROBE_TYPE_BUFFER, DropKeyPicture, nullptr, nullptr);
  }
  gst_util_set_object_arg(G_OBJECT(pipeline_.Find("sink").get()), property.c_str(), address.c_str());
  if (!pipeline_.SetState(GST_STATE_PLAYING)) throw std::runtime_error("can't send to " + address);
}

StreamSender StreamSender::Udp(int port) {
  return {"mpegtsmux alignment=7", "udpsink host=127.0.0.1", "port", std::to_string(port)};
}

StreamSender StreamSender::UdpWithoutKeyPictures(int port) {
  return {"mpegtsmux alignment=7", "udpsink host=127.0.0.1", "port", std::to_string(port), false};
}

StreamSender StreamSender::Srt(int port) {
  return {"mpegtsmux alignment=7", "srtsink wait-for-connection=false", "uri",
          "srt://127.0.0.1:" + std::to_string(port) + "?mode=listener"};
}

StreamSender StreamSender::Rtmp(const std::string& url) {
  return {"flvmux streamable=true", "rtmp2sink", "location", url};
}

int FreeUdpPort() {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof(address);
  const bool bound = bind(fd, reinterpret_cast<sockaddr*>(&address), size) == 0 &&
                     getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) == 0;
  close(fd);
  if (!bound) throw std::runtime_error("no free port");
  return ntohs(address.sin_port);
}

}  // namespace device::testing
