// A real RTMP server for tests: nginx with its RTMP module, as a child on a free port of the loopback interface.
#ifndef DEVICE_TESTING_RTMP_SERVER_H_
#define DEVICE_TESTING_RTMP_SERVER_H_

#include <memory>
#include <string>
#include <vector>

#include "platform/testing/child_process.h"
#include "platform/testing/scratch_folder.h"

namespace device::testing {

// Takes any stream under Url(), and writes each connection's to a file of its own.
class RtmpServer {
 public:
  // Runs and takes connections when the constructor returns. Throws std::runtime_error when nginx can't be started.
  RtmpServer();

  std::string Url() const;  // rtmp://127.0.0.1:PORT/live

  void Kill();   // as by a crash
  void Start();  // again, on the same port
  void Signal(int signal) const { nginx_->Signal(signal); }

  std::vector<std::string> Recordings() const { return dir_.Files(".flv"); }

 private:
  bool TryStart();

  vextest::ScratchFolder dir_;
  int port_ = 0;
  std::unique_ptr<vextest::ChildProcess> nginx_;
};

// A TCP port of the loopback interface with nothing behind it, or with a listener that takes connections and never
// answers. Keeps its port until destruction.
class SilentPort {
 public:
  enum class Kind { kRefuses, kNeverAnswers };
  explicit SilentPort(Kind kind);
  SilentPort(const SilentPort&) = delete;
  SilentPort& operator=(const SilentPort&) = delete;
  ~SilentPort();

  int port() const { return port_; }
  std::string Url() const { return "rtmp://127.0.0.1:" + std::to_string(port_) + "/live"; }
  bool HasConnection() const;  // one waits to be accepted

 private:
  int socket_;
  int port_;
};

}  // namespace device::testing

#endif  // DEVICE_TESTING_RTMP_SERVER_H_
