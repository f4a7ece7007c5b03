#include "sysconfig/settings.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <thread>
#include <vector>

namespace sysconfig {
namespace {

// flock() has no limit of its own, so the lock is tried again and again.
constexpr auto kLockPause = std::chrono::milliseconds(10);
constexpr mode_t kFileMode = 0644;

[[noreturn]] void Fail(const std::string& what) { throw Error(what + ": " + std::strerror(errno), false); }

bool IsLetter(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_'; }
bool IsNameCharacter(char c) { return IsLetter(c) || (c >= '0' && c <= '9') || c == '.' || c == '-'; }

class File {
 public:
  File(const std::string& path, int flags) : descriptor_(open(path.c_str(), flags | O_CLOEXEC, kFileMode)) {}
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  ~File() {
    if (descriptor_ >= 0) close(descriptor_);
  }
  bool opened() const { return descriptor_ >= 0; }
  int get() const { return descriptor_; }

 private:
  const int descriptor_;
};

// Held from construction to destruction. The lock file stays: to remove it would let two writers in.
class WriteLock {
 public:
  WriteLock(const std::string& path, std::chrono::milliseconds limit) : file_(path, O_RDWR | O_CREAT) {
    if (!file_.opened()) Fail("can't open " + path);
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (flock(file_.get(), LOCK_EX | LOCK_NB) != 0) {
      if (errno != EWOULDBLOCK && errno != EINTR) Fail("can't lock " + path);
      if (std::chrono::steady_clock::now() > deadline) {
        throw Error("another program holds " + path + "; try again when it is done", false);
      }
      std::this_thread::sleep_for(kLockPause);
    }
  }

 private:
  const File file_;
};

std::vector<std::string> ReadLines(const std::string& path) {
  const File file(path, O_RDONLY);
  if (!file.opened()) {
    if (errno == ENOENT) return {};
    Fail("can't read " + path);
  }
  std::string text;
  char part[4096];
  for (;;) {
    const ssize_t size = read(file.get(), part, sizeof(part));
    if (size == 0) break;
    if (size < 0 && errno == EINTR) continue;
    if (size < 0) Fail("can't read " + path);
    text.append(part, static_cast<std::size_t>(size));
  }
  std::vector<std::string> lines;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = std::min(text.find('\n', at), text.size());
    lines.push_back(text.substr(at, end - at));
    at = end + 1;
  }
  return lines;
}

void WriteAll(int descriptor, std::string_view text, const std::string& path) {
  while (!text.empty()) {
    const ssize_t size = write(descriptor, text.data(), text.size());
    if (size < 0 && errno == EINTR) continue;
    if (size < 0) Fail("can't write " + path);
    text.remove_prefix(static_cast<std::size_t>(size));
  }
}

// The new text is on the disk before it takes the old one's name.
void ReplaceFile(const std::string& path, const std::string& text) {
  const std::string partial = path + ".new";
  try {
    const File file(partial, O_WRONLY | O_CREAT | O_TRUNC);
    if (!file.opened()) Fail("can't write " + partial);
    struct stat before = {};
    if (stat(path.c_str(), &before) == 0) fchmod(file.get(), before.st_mode & 07777);
    WriteAll(file.get(), text, partial);
    if (fsync(file.get()) != 0) Fail("can't write " + partial);
    if (rename(partial.c_str(), path.c_str()) != 0) Fail("can't replace " + path);
  } catch (const Error&) {
    unlink(partial.c_str());
    throw;
  }
  // The new name is on the disk only when the folder is.
  const File folder(std::filesystem::path(path).parent_path().string(), O_RDONLY | O_DIRECTORY);
  if (folder.opened()) fsync(folder.get());
}

// The name that a line sets; empty for comments and all other lines that are not a setting.
std::string_view NameOf(std::string_view line) {
  const std::size_t equals = line.find('=');
  if (equals == std::string_view::npos || equals == 0 || !IsLetter(line.front())) return {};
  const std::string_view name = line.substr(0, equals);
  return std::all_of(name.begin(), name.end(), IsNameCharacter) ? name : std::string_view();
}

// The file itself where `path` is a symbolic link, which is to stay one.
std::string Resolve(const std::string& path) {
  std::error_code error;
  const std::filesystem::path resolved = std::filesystem::weakly_canonical(path, error);
  return error ? path : resolved.string();
}

}  // namespace

void CheckName(const std::string& name) {
  const bool valid = !name.empty() && name.size() <= Settings::kMaxName && IsLetter(name.front()) &&
                     std::all_of(name.begin(), name.end(), IsNameCharacter);
  if (!valid) {
    throw Error("'" + name + "' is not a name for a setting: use a letter, then letters, digits and _.-, 64 at most",
                true);
  }
}

void CheckValue(const std::string& value) {
  if (value.size() > Settings::kMaxValue) {
    throw Error("the value has " + std::to_string(value.size()) + " bytes; " + std::to_string(Settings::kMaxValue) +
                    " is the most",
                true);
  }
  // unsigned, because a plain char may be negative for bytes above 127
  const auto is_control = [](unsigned char c) { return c < ' ' || c == 0x7f; };
  if (std::any_of(value.begin(), value.end(), is_control)) {
    throw Error("the value holds control characters; it must be one line of text", true);
  }
}

Settings::Settings(const std::string& file, std::chrono::milliseconds lock_limit)
    : file_(Resolve(file)), lock_limit_(lock_limit) {}

std::optional<std::string> Settings::Get(const std::string& name) const {
  CheckName(name);
  for (const std::string& line : ReadLines(file_)) {
    if (NameOf(line) == name) return line.substr(name.size() + 1);
  }
  return std::nullopt;
}

std::map<std::string, std::string> Settings::All() const {
  std::map<std::string, std::string> all;
  for (const std::string& line : ReadLines(file_)) {
    const std::string name(NameOf(line));
    if (!name.empty()) all.emplace(name, line.substr(name.size() + 1));
  }
  return all;
}

void Settings::Set(const std::string& name, const std::string& value) { Change(name, value); }

void Settings::Remove(const std::string& name) { Change(name, std::nullopt); }

void Settings::Change(const std::string& name, const std::optional<std::string>& value) {
  CheckName(name);
  if (value) CheckValue(*value);
  std::error_code ignored;  // opening the lock file then fails too, and its error is reported
  std::filesystem::create_directories(std::filesystem::path(file_).parent_path(), ignored);
  const WriteLock lock(file_ + ".lock", lock_limit_);
  // Read under the lock, so that no other writer's change is lost. The first line of a name counts when settings are
  // read; later ones of this name are dropped here.
  std::string text;
  bool placed = !value.has_value();
  for (const std::string& line : ReadLines(file_)) {
    if (NameOf(line) != name) {
      text += line + "\n";
    } else if (!placed) {
      text += name + "=" + *value + "\n";
      placed = true;
    }
  }
  if (!placed) text += name + "=" + *value + "\n";
  ReplaceFile(file_, text);
}

}  // namespace sysconfig
