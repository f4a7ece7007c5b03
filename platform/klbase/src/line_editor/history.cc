#include "line_editor/history.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <utility>

#include "klbase/log.h"
#include "line_editor/limits.h"

namespace cli::internal {
namespace {

// More than the newest lines can take; anything before them is never read, however large somebody made the file.
constexpr off_t kMaxFileBytes = 2 * static_cast<off_t>(History::kMaxLines * (kMaxLineBytes + 1));
constexpr mode_t kFileMode = 0600;  // lines may hold addresses and stream keys

bool WriteAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = write(fd, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

// Waits at most 200 ms: a console that was stopped while it held the lock must not stop the others.
bool LockFor200Ms(int fd) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(200);
  while (flock(fd, LOCK_EX | LOCK_NB) != 0) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

}  // namespace

// The history's file, opened and locked while this object lives.
class History::LockedFile {
 public:
  enum class State { kReady, kBusy, kUnusable };

  explicit LockedFile(const std::string& path) {
    // Somebody may replace the file between open() and flock(); then the lock is on one that nobody reads any more.
    constexpr int kTries = 10;
    for (int i = 0; i < kTries && state_ == State::kBusy; ++i) {
      if (Open(path)) break;
    }
  }
  ~LockedFile() { Close(); }
  LockedFile(const LockedFile&) = delete;
  LockedFile& operator=(const LockedFile&) = delete;

  State GetState() const { return state_; }
  // Why it is unusable.
  const char* What() const { return what_; }
  int Error() const { return error_; }

  int Descriptor() const { return fd_; }
  ino_t Inode() const { return info_.st_ino; }
  off_t Size() const { return info_.st_size; }
  void Grew(std::size_t bytes) { info_.st_size += static_cast<off_t>(bytes); }

 private:
  void Close() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
  }

  bool Unusable(const char* what, int error) {
    state_ = State::kUnusable;
    what_ = what;
    error_ = error;
    return true;
  }

  // Returns true when the state is final. Non-blocking, so that a FIFO is refused and not waited for.
  bool Open(const std::string& path) {
    Close();
    fd_ = open(path.c_str(), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, kFileMode);
    if (fd_ < 0) return Unusable(errno == ELOOP ? "it is a symbolic link" : "opening it failed", errno);
    if (fstat(fd_, &info_) != 0) return Unusable("looking at it failed", errno);
    if (!S_ISREG(info_.st_mode)) return Unusable("it is not a regular file", 0);
    if (info_.st_uid != geteuid()) return Unusable("it belongs to another user", 0);
    if ((info_.st_mode & 07777) != kFileMode && fchmod(fd_, kFileMode) != 0) {
      return Unusable("setting its mode to 0600 failed", errno);
    }
    if (!LockFor200Ms(fd_)) return true;
    struct stat current {};
    if (fstat(fd_, &info_) != 0 || lstat(path.c_str(), &current) != 0 || current.st_ino != info_.st_ino) return false;
    state_ = State::kReady;
    return true;
  }

  State state_ = State::kBusy;
  int fd_ = -1;
  struct stat info_ {};
  const char* what_ = "";
  int error_ = 0;
};

History::History(std::string file) : file_(std::move(file)) { Merge(); }

void History::Add(std::string_view line) {
  if (line.empty() || line.size() > kMaxLineBytes || line.front() == ' ' || line.front() == '\t') return;
  if (line.find_first_of(std::string_view("\r\n\0", 3)) != std::string_view::npos) return;
  // The others' lines come first: the new line is the newest of all.
  const bool available = !file_.empty() && Synchronise();
  if (!lines_.empty() && lines_.back() == line) return;
  Keep(line);
  Trim();
  if (file_.empty()) return;
  // The file has been locked all this time, and its readers would pass over so many lines anyway.
  if (unsaved_.size() > static_cast<std::size_t>(kMaxFileBytes)) unsaved_.clear();
  unsaved_ += line;
  unsaved_ += '\n';
  if (available) Synchronise();
}

void History::Merge() {
  if (!file_.empty()) Synchronise();
}

bool History::Synchronise() {
  LockedFile file(file_);
  if (file.GetState() == LockedFile::State::kUnusable) return GiveUp(file.What(), file.Error());
  if (file.GetState() == LockedFile::State::kBusy) return false;
  if (!ReadNew(file)) return GiveUp("reading it failed", errno);
  if (!AppendUnsaved(file)) return GiveUp("writing it failed", errno);
  if (lines_in_file_ <= 4 * kMaxLines && file.Size() <= kMaxFileBytes) return true;
  return Compact() || GiveUp("writing its shorter form failed", errno);
}

// Own lines that are not in the file yet stand at the end of lines_; lines that others wrote meanwhile go behind them.
bool History::ReadNew(const LockedFile& file) {
  if (file.Inode() != inode_ || file.Size() < read_) {
    // Another file than before: somebody wrote the shorter form. It holds everything that was saved.
    const auto unsaved = static_cast<std::size_t>(std::count(unsaved_.begin(), unsaved_.end(), '\n'));
    const auto keep = std::min(unsaved, lines_.size());
    lines_.erase(lines_.begin(), lines_.end() - static_cast<std::ptrdiff_t>(keep));
    inode_ = file.Inode();
    read_ = 0;
    lines_in_file_ = 0;
  }
  const bool skips = file.Size() - read_ > kMaxFileBytes;
  const off_t position = skips ? file.Size() - kMaxFileBytes : read_;
  std::string bytes(static_cast<std::size_t>(file.Size() - position), '\0');
  std::size_t filled = 0;
  while (filled < bytes.size()) {
    const ssize_t got =
        pread(file.Descriptor(), bytes.data() + filled, bytes.size() - filled, position + static_cast<off_t>(filled));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return false;
    if (got == 0) break;
    filled += static_cast<std::size_t>(got);
  }
  std::string_view rest(bytes.data(), filled);
  // The first line is left out: it was met somewhere in its middle.
  if (skips) rest.remove_prefix(std::min(rest.find('\n'), rest.size()));
  while (!rest.empty()) {
    const std::size_t end = std::min(rest.find('\n'), rest.size());
    Keep(rest.substr(0, end));
    ++lines_in_file_;
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
  Trim();
  read_ = file.Size();
  return true;
}

bool History::AppendUnsaved(LockedFile& file) {
  if (unsaved_.empty()) return true;
  char last = '\n';
  if (file.Size() > 0 && pread(file.Descriptor(), &last, 1, file.Size() - 1) != 1) return false;
  const std::string bytes = (last == '\n' ? "" : "\n") + unsaved_;  // a writer may have died in the middle of a line
  if (!WriteAll(file.Descriptor(), bytes)) {
    const int error = errno;
    (void)!ftruncate(file.Descriptor(), file.Size());  // no halves of lines
    errno = error;
    return false;
  }
  lines_in_file_ += static_cast<std::size_t>(std::count(unsaved_.begin(), unsaved_.end(), '\n'));
  file.Grew(bytes.size());
  read_ = file.Size();
  unsaved_.clear();
  return true;
}

// Into a new file that replaces the old one: a crash leaves one or the other. The lock on the old file keeps other
// consoles out meanwhile; they notice that it was replaced.
bool History::Compact() {
  const std::string path = file_ + ".new";
  unlink(path.c_str());  // left by a crash
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, kFileMode);
  if (fd < 0) return false;
  std::string bytes;
  for (const std::string& line : lines_) bytes += line + '\n';
  struct stat info {};
  const bool written = WriteAll(fd, bytes) && fstat(fd, &info) == 0 && rename(path.c_str(), file_.c_str()) == 0;
  const int error = errno;
  close(fd);
  if (!written) {
    unlink(path.c_str());
    errno = error;
    return false;
  }
  inode_ = info.st_ino;
  read_ = info.st_size;
  lines_in_file_ = lines_.size();
  return true;
}

void History::Keep(std::string_view line) {
  if (line.empty() || line.size() > kMaxLineBytes) return;
  if (!lines_.empty() && lines_.back() == line) return;
  // Twice as many for the moment: dropping the oldest one by one would move all others each time.
  if (lines_.size() >= 2 * kMaxLines) Trim();
  lines_.emplace_back(line);
}

void History::Trim() {
  if (lines_.size() <= kMaxLines) return;
  lines_.erase(lines_.begin(), lines_.end() - static_cast<std::ptrdiff_t>(kMaxLines));
}

bool History::GiveUp(const char* what, int error) {
  KL_LOG(40, "history file '%s' is not used, %s%s%s; lines are kept in memory only\n", file_.c_str(), what,
         error != 0 ? ": " : "", error != 0 ? std::strerror(error) : "");
  file_.clear();
  unsaved_.clear();
  return false;
}

namespace {

std::string Environment(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? std::string() : std::string(value);
}

void MakeFolders(const std::string& file) {
  for (std::size_t slash = file.find('/', 1); slash != std::string::npos; slash = file.find('/', slash + 1)) {
    mkdir(file.substr(0, slash).c_str(), 0700);  // those that exist stay; others' failure shows when the file is opened
  }
}

}  // namespace

std::string DefaultHistoryFile() {
  std::string file;
  if (const char* named = std::getenv("KLBASE_HISTORY_FILE")) {
    file = named;
  } else if (const std::string state = Environment("XDG_STATE_HOME"); !state.empty() && state.front() == '/') {
    file = state + "/vextool/history";
  } else if (const std::string home = Environment("HOME"); !home.empty()) {
    file = home + "/.local/state/vextool/history";
  }
  MakeFolders(file);
  return file;
}

}  // namespace cli::internal
