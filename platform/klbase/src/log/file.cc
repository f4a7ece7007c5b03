#include "log/file.h"

#include <fcntl.h>
#include <pthread.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <new>
#include <utility>

#include "klbase/log.h"
#include "log/environment.h"
#include "log/format.h"

namespace klbase_internal {
namespace {

constexpr int kStandardErrorLevel = 40;
constexpr auto kFlushInterval = std::chrono::milliseconds(700);  // under the promised second

// Records are formatted before they come here.
class VerbatimFormatter : public spdlog::formatter {
 public:
  void format(const spdlog::details::log_msg& message, spdlog::memory_buf_t& out) override {
    out.append(message.payload.data(), message.payload.data() + message.payload.size());
  }
  std::unique_ptr<spdlog::formatter> clone() const override { return std::make_unique<VerbatimFormatter>(); }
};

// Opens and closes the file, to learn at once and exactly why it can't be opened, and ends a line that a full disk or a
// power cut left unfinished. Returns the error, 0 for none.
int Prepare(const std::string& path) {
  std::error_code ignored;  // open() then fails too, and its error is returned
  std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ignored);
  const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY, 0644);
  if (fd < 0) return errno;
  struct stat info {};
  char last = '\n';
  if (fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && info.st_size > 0) (void)!pread(fd, &last, 1, info.st_size - 1);
  if (last != '\n') (void)!write(fd, "\n", 1);
  close(fd);
  return 0;
}

// Children get no copy of the file. Its buffer is ours, because the one that the C library would get from the heap at
// the first write could be that of a crash report. There is never more than one log file open.
void SetUp(std::FILE* file) {
  static char buffer[64 * 1024];
  fcntl(fileno(file), F_SETFD, FD_CLOEXEC);
  setvbuf(file, buffer, _IOFBF, sizeof buffer);
}

// The flusher must never run a handler of the program, which may log. Signals of a thread's own faults are not blocked:
// they would then end the process without a crash report.
std::unique_ptr<std::thread> StartWithSignalsBlocked(void (*run)(LogFile*), LogFile* file) {
  sigset_t blocked;
  sigset_t before;
  sigfillset(&blocked);
  for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS}) sigdelset(&blocked, fault);
  pthread_sigmask(SIG_SETMASK, &blocked, &before);
  std::unique_ptr<std::thread> thread;
  try {
    thread = std::make_unique<std::thread>(run, file);
  } catch (const std::exception&) {
    // Without a thread, records are flushed one by one.
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return thread;
}

}  // namespace

LogFile& LogFile::Instance() {
  static LogFile& file = *[] {
    auto* created = new LogFile;
    created->RegisterForkHandlers();
    return created;
  }();
  return file;
}

LogFile::Sink LogFile::OpenSink(std::string* error) {
  if (const int code = Prepare(settings_.path); code != 0) {
    *error = std::strerror(code);
    return nullptr;
  }
  spdlog::file_event_handlers handlers;
  handlers.after_open = [this](const spdlog::filename_t&, std::FILE* file) {
    SetUp(file);
    struct stat info {};
    fstat(fileno(file), &info);
    file_id_ = {info.st_dev, info.st_ino};
  };
  try {
    // spdlog's count leaves out the live file.
    const auto rotated = static_cast<std::size_t>(std::clamp(settings_.max_files, 1, 200'000) - 1);
    const auto bytes = static_cast<std::size_t>(std::max(settings_.max_file_size_kb, 1)) * 1024;
    auto sink = std::make_unique<spdlog::sinks::rotating_file_sink_st>(settings_.path, bytes, rotated, false, handlers);
    sink->set_formatter(std::make_unique<VerbatimFormatter>());
    return sink;
  } catch (const std::exception& failure) {
    *error = failure.what();
    return nullptr;
  }
}

bool LogFile::Open(Settings settings) {
  MutexLock control(control_);
  CloseLocked();
  settings_ = std::move(settings);
  std::string error;
  Sink sink = OpenSink(&error);
  if (sink == nullptr) {
    WriteToStandardError("klbase: can't write the log file '" + settings_.path + "': " + error +
                         "; records of level 40 and above go to standard error (KLBASE_LOG_FILE names another file)\n");
  }
  const bool opened = sink != nullptr;
  {
    MutexLock lock(mutex_);
    sink_ = std::move(sink);
    unflushed_ = 0;
    failing_ = stop_flusher_ = false;
  }
  if (opened) flusher_ = StartWithSignalsBlocked([](LogFile* file) { file->RunFlusher(); }, this);
  {
    MutexLock lock(mutex_);
    flusher_runs_ = flusher_ != nullptr;
  }
  open_.store(true, std::memory_order_release);
  return opened;
}

void LogFile::Close() {
  MutexLock control(control_);
  CloseLocked();
}

void LogFile::CloseLocked() {
  std::string notice;
  {
    MutexLock lock(mutex_);
    open_.store(false, std::memory_order_release);
    FlushLocked(&notice);
    sink_.reset();
    stop_flusher_ = true;
    flusher_runs_ = false;
    wake_flusher_.NotifyAll();
  }
  if (flusher_ != nullptr) flusher_->join();
  flusher_.reset();
  WriteToStandardError(notice);
}

void LogFile::Write(int level, Urgency urgency, std::string_view line) {
  // Set while this thread is inside: a crash in here comes back through the failure writer, and must not wait for the
  // lock that its own thread holds.
  constinit static thread_local bool inside = false;
  if (inside) {
    if (level >= kStandardErrorLevel) WriteToStandardError(line);
    return;
  }
  std::string notice;
  bool written = false;
  inside = true;
  {
    MutexLock lock(mutex_);
    // Tested again under the lock: the file may have been closed meanwhile.
    written = !open_.load(std::memory_order_relaxed) || WriteToSinkLocked(urgency, line, &notice);
  }
  inside = false;
  WriteToStandardError(notice);
  if (!written && level >= kStandardErrorLevel) WriteToStandardError(line);
}

bool LogFile::WriteToSinkLocked(Urgency urgency, std::string_view line, std::string* notice) {
  const bool flush = urgency == Urgency::kAtOnce || !flusher_runs_;
  // Asked before each write to the file, and not for each record that only waits for one.
  if (sink_ != nullptr && (flush || unflushed_ == 0) && FileIsGoneLocked()) BeginAgainLocked(notice);
  if (sink_ == nullptr) {
    ++lost_;
    return false;
  }
  ++unflushed_;
  try {
    sink_->log(spdlog::details::log_msg({}, {}, spdlog::level::info, {line.data(), line.size()}));
  } catch (const std::exception& failure) {
    SinkFailedLocked(failure.what(), notice);
    return false;
  }
  if (!flush && unflushed_ == 1) wake_flusher_.NotifyAll();
  if (flush) FlushLocked(notice);
  return sink_ != nullptr;
}

// After a removal, or a move by a log rotation, records would go where nobody looks for them.
bool LogFile::FileIsGoneLocked() const {
  struct stat info {};
  if (stat(settings_.path.c_str(), &info) != 0) return errno == ENOENT || errno == ENOTDIR;
  return info.st_dev != file_id_.device || info.st_ino != file_id_.number;
}

void LogFile::BeginAgainLocked(std::string* notice) {
  FlushLocked(notice);
  sink_.reset();
  std::string error;
  sink_ = OpenSink(&error);
  if (sink_ == nullptr) return SinkFailedLocked(error.c_str(), notice);
  constexpr std::string_view kText = "a new log is begun: the file was removed or moved away";
  constexpr std::string_view kSource = SourceName(__FILE__);
  std::timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  LogBuffer line;
  AppendLogLine(line, {kStandardErrorLevel, kSource, __LINE__, __func__, kText}, now, gettid());
  try {
    ++unflushed_;
    sink_->log(spdlog::details::log_msg({}, {}, spdlog::level::info, {line.data(), line.size()}));
    wake_flusher_.NotifyAll();
  } catch (const std::exception& failure) {
    SinkFailedLocked(failure.what(), notice);
  }
}

void LogFile::FlushLocked(std::string* notice) {
  if (sink_ == nullptr || unflushed_ == 0) return;
  try {
    sink_->flush();
    unflushed_ = 0;
    failing_ = false;
  } catch (const std::exception& failure) {
    SinkFailedLocked(failure.what(), notice);
  }
}

// The sink is given up, not used again: after a failed rotation it has no file and would crash. The flusher opens a new
// one as soon as that works.
void LogFile::SinkFailedLocked(const char* why, std::string* notice) {
  sink_.reset();
  lost_ += std::exchange(unflushed_, 0);
  if (!failing_) {
    *notice = std::string("klbase: writing the log failed: ") + why +
              "; until it works again, records of level 40 and above go to standard error\n";
  }
  failing_ = true;
  wake_flusher_.NotifyAll();
}

// Sleeps while there is nothing to do, so an idle tool causes no wake-ups.
void LogFile::RunFlusher() {
  while (true) {
    std::string notice;
    bool lost = false;
    {
      MutexLock lock(mutex_);
      while (!stop_flusher_ && unflushed_ == 0 && sink_ != nullptr) wake_flusher_.Wait(mutex_);
      // A wall clock that is set back must not hold the records back.
      const auto due = Condition::Clock::now() + kFlushInterval;
      while (!stop_flusher_ && wake_flusher_.WaitUntil(mutex_, due)) {
      }
      if (stop_flusher_) return;
      FlushLocked(&notice);
      lost = sink_ == nullptr;
    }
    WriteToStandardError(notice);
    if (lost) Reopen();
  }
}

// Opens without the lock: a disk that hangs must not hang the threads that log.
void LogFile::Reopen() {
  std::string error;
  Sink sink = OpenSink(&error);
  MutexLock lock(mutex_);
  if (!stop_flusher_) sink_ = std::move(sink);
}

// A child that goes on after fork() has no flusher and a copy of every lock; it must neither wait for a lock whose
// holder does not exist in it nor write the parent's unflushed records once more.
void LogFile::RegisterForkHandlers() {
  pthread_atfork([] { Instance().BeforeFork(); }, [] { Instance().AfterForkInParent(); },
                 [] { Instance().AfterForkInChild(); });
}

void LogFile::BeforeFork() ABSL_NO_THREAD_SAFETY_ANALYSIS {
  LocalTimeOffset(std::time(nullptr));  // so that the child need not ask
  control_.lock();
  mutex_.lock();
  std::string notice;
  FlushLocked(&notice);
  WriteToStandardError(notice);
}

void LogFile::AfterForkInParent() ABSL_NO_THREAD_SAFETY_ANALYSIS {
  mutex_.unlock();
  control_.unlock();
}

void LogFile::AfterForkInChild() ABSL_NO_THREAD_SAFETY_ANALYSIS {
  new (&wake_flusher_) Condition;
  (void)flusher_.release();
  flusher_runs_ = false;
  mutex_.unlock();
  control_.unlock();
}

}  // namespace klbase_internal
