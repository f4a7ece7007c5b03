// A real SRT receiver for tests, as a child on a free port of the loopback interface.
#ifndef DEVICE_TESTING_SRT_RECEIVER_H_
#define DEVICE_TESTING_SRT_RECEIVER_H_

#include <memory>
#include <string>
#include <vector>

#include "platform/testing/child_process.h"
#include "platform/testing/scratch_folder.h"

namespace device::testing {

// Takes one caller after the other, and writes each one's transport stream to a file of its own.
class SrtReceiver {
 public:
  // Takes callers when the constructor returns. `words` are added to its address, "&passphrase=…". Throws
  // std::runtime_error when it can't be started.
  explicit SrtReceiver(std::string words = "");

  std::string Url() const;  // srt://127.0.0.1:PORT

  void Kill();   // as by a crash
  void Start();  // again, on the same port; files are written anew
  void Signal(int signal) const { child_->Signal(signal); }

  // True once a caller has come with this stream id.
  bool HasCaller(const std::string& stream_id) { return child_->WaitFor("caller with id \"" + stream_id + "\""); }

  std::vector<std::string> Recordings() const { return dir_.Files(".ts"); }

 private:
  bool TryStart();

  vextest::ScratchFolder dir_;
  const std::string words_;
  int port_ = 0;
  std::unique_ptr<vextest::ChildProcess> child_;
};

// A UDP port of the loopback interface that nobody reads from; free again after destruction.
class SilentUdpPort {
 public:
  SilentUdpPort();
  SilentUdpPort(const SilentUdpPort&) = delete;
  SilentUdpPort& operator=(const SilentUdpPort&) = delete;
  ~SilentUdpPort();

  int port() const { return port_; }
  std::string Url() const { return "srt://127.0.0.1:" + std::to_string(port_); }

 private:
  const int socket_;
  int port_ = 0;
};

}  // namespace device::testing

#endif  // DEVICE_TESTING_SRT_RECEIVER_H_
