// srt_receiver FOLDER PORT?mode=listener[&WORD=VALUE…]: listens for SRT on the loopback interface and writes what each
// caller sends to a file of its own, 1.ts, 2.ts and so on. Says when it listens, and each caller's stream id. Runs
// until it is killed.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "base/gst.h"

namespace {

gboolean OnCaller(GstElement*, gpointer, const gchar* stream_id, gpointer) {
  std::printf("caller with id \"%s\"\n", stream_id == nullptr ? "" : stream_id);
  std::fflush(stdout);
  return TRUE;
}

// Returns when the caller has gone.
void Receive(const std::string& address, const std::string& file) {
  device::Pipeline pipeline("srtsrc name=in ! filesink name=out buffer-mode=unbuffered");
  g_object_set(pipeline.Find("in").get(), "uri", address.c_str(), nullptr);
  g_object_set(pipeline.Find("out").get(), "location", file.c_str(), nullptr);
  g_object_set(pipeline.Find("in").get(), "authentication", TRUE, nullptr);
  g_signal_connect(pipeline.Find("in").get(), "caller-connecting", G_CALLBACK(OnCaller), nullptr);
  if (pipeline.SetState(GST_STATE_PLAYING)) std::printf("listens for %s\n", file.c_str());
  std::fflush(stdout);
  while (true) {
    const auto message = pipeline.WaitFor(static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR),
                                          std::chrono::milliseconds(1000));
    if (!message) continue;
    if (GST_MESSAGE_TYPE(message.get()) == GST_MESSAGE_EOS) return;
    std::printf("failed: %s\n", device::ErrorText(message.get()).c_str());
    std::exit(1);
  }
}

}  // namespace

int main(int argc, char** argv) {
  gst_init(nullptr, nullptr);
  if (argc != 3) return 2;
  // A second of latency: what a busy machine sends late is still taken.
  const std::string address = "srt://127.0.0.1:" + std::string(argv[2]) + "&latency=1000";
  for (int caller = 1;; ++caller) Receive(address, std::string(argv[1]) + "/" + std::to_string(caller) + ".ts");
}
