#include "console/record/journal.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "klbase/log.h"
#include "klbase/metrics.h"

namespace cli::internal {
namespace {

constexpr char kSocket[] = "/run/systemd/journal/socket";

std::string SocketOfProcess() {
  const char* stream = std::getenv("JOURNAL_STREAM");
  return IsJournal(STDERR_FILENO, stream) || IsJournal(STDOUT_FILENO, stream) ? kSocket : "";
}

klbase::Counter LostRecords() {
  static const klbase::Counter lost =
      klbase::Counters("vextool_journal_records_lost_total", "Records of lines that the system's journal did not take.")
          .With();
  return lost;
}
[[maybe_unused]] const bool counts = (LostRecords(), true);

}  // namespace

bool IsJournal(int fd, const char* stream) {
  struct stat info {};
  if (stream == nullptr || ::fstat(fd, &info) != 0) return false;
  return std::to_string(info.st_dev) + ':' + std::to_string(info.st_ino) == stream;
}

Journal& Journal::OfProcess() {
  static Journal& journal = *new Journal(SocketOfProcess());
  return journal;
}

Journal::Journal(std::string path)
    : path_(std::move(path)),
      fd_(path_.empty() || path_.size() >= sizeof(sockaddr_un::sun_path)
              ? -1
              : ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {}

Journal::~Journal() {
  if (fd_ >= 0) ::close(fd_);
}

// With the address each time: a connection would be of no use once the journal has been started again.
void Journal::Send(std::initializer_list<Field> fields) {
  if (!Wanted()) return;
  std::string record;
  for (const auto& [name, value] : fields) record.append(name).append("=").append(value).append("\n");
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path_.c_str(), path_.size() + 1);
  const auto* to = reinterpret_cast<const sockaddr*>(&address);
  if (::sendto(fd_, record.data(), record.size(), MSG_NOSIGNAL, to, sizeof address) >= 0) return;
  const int error = errno;
  lost_.fetch_add(1, std::memory_order_relaxed);
  LostRecords().Add();
  KL_LOG_COLLAPSED(losses_, "the journal did not take the record of a line: %s\n", std::strerror(error));
}

}  // namespace cli::internal
