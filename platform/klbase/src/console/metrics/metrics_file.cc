#include "console/metrics/metrics_file.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <utility>

#include "klbase/log.h"
#include "klbase/metrics.h"

namespace cli::internal {
namespace {

constexpr mode_t kAllMayRead = 0644;

// In the same folder, so that it can take the file's place; with a name that a node exporter doesn't read.
std::string BesideOf(const std::string& path) {
  const std::size_t name = path.rfind('/') + 1;  // npos + 1 is 0
  return path.substr(0, name) + "." + path.substr(name) + ".tmp";
}

// The functions below return an error's number; 0: none.

int WriteAll(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(fd, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return errno;
    text.remove_prefix(static_cast<std::size_t>(written));
  }
  return 0;
}

int WriteFile(const std::string& path, std::string_view text) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, kAllMayRead);
  if (fd < 0) return errno;
  int error = ::fchmod(fd, kAllMayRead) == 0 ? 0 : errno;  // whatever the umask
  if (error == 0) error = WriteAll(fd, text);
  if (::close(fd) != 0 && error == 0) error = errno;
  return error;
}

int Replace(const std::string& path, std::string_view text) {
  const std::string beside = BesideOf(path);
  int error = WriteFile(beside, text);
  if (error == 0 && std::rename(beside.c_str(), path.c_str()) != 0) error = errno;
  if (error != 0) ::unlink(beside.c_str());
  return error;
}

}  // namespace

MetricsFile::MetricsFile(std::string path, std::chrono::milliseconds period) : path_(std::move(path)), period_(period) {
  // The thread handles no signals: a handler that stops the console would wait for the thread that it runs on.
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, &before);
  thread_ = std::thread([this] { Run(); });
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

MetricsFile::~MetricsFile() {
  {
    const absl::MutexLock lock(&mutex_);
    ended_ = true;
    changed_.SignalAll();
  }
  thread_.join();
}

void MetricsFile::Run() {
  for (bool ended = false; !ended;) {
    Write();
    const auto next = std::chrono::steady_clock::now() + period_;
    const absl::MutexLock lock(&mutex_);
    while (!ended_ && changed_.WaitUntil(&mutex_, next)) continue;
    ended = ended_;
  }
  Write();
}

void MetricsFile::Write() {
  const int error = Replace(path_, klbase::MetricsText());
  if (error != 0 && !failing_) {
    KL_LOG(40, "the metrics file %s cannot be written: %s (KLBASE_METRICS_FILE names another one)\n", path_.c_str(),
           std::strerror(error));
  }
  if (error == 0 && failing_) KL_LOG(30, "the metrics file %s is written again\n", path_.c_str());
  failing_ = error != 0;
}

}  // namespace cli::internal
