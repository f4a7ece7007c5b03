#include "envctl/sysconf.h"

#include <poll.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "tool_process.h"

namespace {

using Deadline = std::chrono::steady_clock::time_point;

constexpr std::size_t kCommandSize = 128;
constexpr std::size_t kReplySize = 128;
constexpr std::size_t kListLineSize = 4096;
constexpr std::size_t kValSize = 4096;
constexpr int kAttempts = 3;

// Marks under which a failed start is reported.
constexpr int kGetMark = 54;
constexpr int kPrintMark = 93;
constexpr int kSetMark = 122;
constexpr int kBootLoaderMark = 163;

ABSL_CONST_INIT absl::Mutex val_mutex(absl::kConstInit);
char val[kValSize] ABSL_GUARDED_BY(val_mutex);

// For an operation with all its attempts: a tool that hangs must not hold a session for ever.
constexpr std::chrono::seconds kLimit{10};

Deadline LimitFromNow() { return std::chrono::steady_clock::now() + kLimit; }
std::int64_t MillisecondsTo(Deadline deadline) {
  return std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
}

thread_local int stop_fd = -1;

bool IsOver(Deadline deadline) {
  pollfd stop{stop_fd, POLLIN, 0};
  return MillisecondsTo(deadline) <= 0 || ::poll(&stop, 1, 0) == 1;
}

FILE* Start(const char* command, Deadline deadline, int mark) {
  FILE* const pipe = OpenSettingsTool(command, MillisecondsTo(deadline), stop_fd);
  if (pipe == nullptr && errno != ECANCELED) {
    std::printf("<%d>popen read_device_info", mark);
    std::fflush(stdout);  // it ends no line, so nothing else would show it soon
  }
  return pipe;
}

void CutAtLast(char* line, char end) {
  if (char* const found = std::strrchr(line, end)) *found = '\0';
}

void CutLineEnd(char* line) {
  CutAtLast(line, '\n');
  CutAtLast(line, '\r');
}

// Reads the first line of the tool's answer, ends the tool, and copies the text behind the first "=" to `dst`.
int ReadValue(FILE* pipe, char* dst) {
  char line[kReplySize] = "";
  int result = -1;
  if (std::fgets(line, sizeof line, pipe) != nullptr) {
    CutLineEnd(line);
    if (const char* const equals = std::strchr(line, '=')) {
      std::memcpy(dst, equals + 1, std::strlen(equals + 1) + 1);
      result = 0;
    }
  }
  return CloseSettingsTool(pipe) ? result : -1;
}

bool Fits(int length) { return length >= 0 && static_cast<std::size_t>(length) < kCommandSize; }

// One attempt.
int get_value(const char* name, char* dst, Deadline deadline) {
  if (name == nullptr) return -1;
  char command[kCommandSize];
  if (!Fits(std::snprintf(command, sizeof command, "/usr/kelo/bin/sysconfig get %s", name))) return -1;
  FILE* const pipe = Start(command, deadline, kGetMark);
  return pipe == nullptr ? -1 : ReadValue(pipe, dst);
}

int print_all() {
  FILE* const pipe = Start("/usr/kelo/bin/sysconfig print", LimitFromNow(), kPrintMark);
  if (pipe == nullptr) return -1;
  char line[kListLineSize];
  while (std::fgets(line, sizeof line, pipe) != nullptr) {
    CutLineEnd(line);
    std::fprintf(stderr, "%s\n", line);
  }
  CloseSettingsTool(pipe);
  return 0;
}

}  // namespace

extern "C" {

char* sysconf_getenv_safe(const char* name, char* buffer) {
  if (name == nullptr || buffer == nullptr) return nullptr;
  const Deadline deadline = LimitFromNow();
  for (int attempt = 0; attempt < kAttempts && !IsOver(deadline); ++attempt) {
    if (get_value(name, buffer, deadline) == 0) return buffer;
  }
  return nullptr;
}

// Callers on two threads get each other's values, but nothing is written by two at once: the tool runs without the
// lock.
char* sysconf_getenv(const char* name) {
  {
    absl::MutexLock lock(&val_mutex);
    std::memset(val, 0, sizeof val);
  }
  char value[kReplySize];
  if (sysconf_getenv_safe(name, value) == nullptr) return nullptr;
  absl::MutexLock lock(&val_mutex);
  std::memcpy(val, value, std::strlen(value) + 1);
  return val;
}

char* fw_getenv(const char* name, char* buffer) {
  if (name == nullptr || buffer == nullptr) return nullptr;
  const Deadline deadline = LimitFromNow();
  for (int attempt = 0; attempt < kAttempts && !IsOver(deadline); ++attempt) {
    char command[kCommandSize];
    std::snprintf(command, sizeof command, "fw_printenv %s", name);
    FILE* const pipe = Start(command, deadline, kBootLoaderMark);
    if (pipe != nullptr && ReadValue(pipe, buffer) == 0) return buffer;
  }
  return nullptr;
}

int sysconf_setenv(const char* name, const char* value) {
  if (name == nullptr) return -1;
  char command[kCommandSize];
  const int length = value == nullptr
                         ? std::snprintf(command, sizeof command, "/usr/kelo/bin/sysconfig set %s", name)
                         : std::snprintf(command, sizeof command, "/usr/kelo/bin/sysconfig set %s %s", name, value);
  if (!Fits(length)) return -1;
  FILE* const pipe = Start(command, LimitFromNow(), kSetMark);
  if (pipe == nullptr) return -1;
  CloseSettingsTool(pipe);
  return 0;
}

int sysconf_printenv(void) { return print_all(); }

void sysconf_set_stop_fd(int fd) { stop_fd = fd; }

int sysconf_openenv(void) { return 0; }

int sysconf_closeenv(void) { return 0; }

}  // extern "C"
