// The device's persistent settings: names and values in one small text file.
#ifndef DEVICE_SYSCONFIG_SETTINGS_H_
#define DEVICE_SYSCONFIG_SETTINGS_H_

#include <chrono>
#include <cstddef>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>

namespace sysconfig {

// Something was refused or could not be done; what() names it and the reason. Nothing was changed.
class Error : public std::runtime_error {
 public:
  // `usage`: the request itself makes no sense; false when a sensible one failed.
  Error(const std::string& text, bool usage) : std::runtime_error(text), usage_(usage) {}
  bool usage() const { return usage_; }

 private:
  const bool usage_;
};

// The file has one NAME=VALUE per line, in the order in which they were first set. Other lines (comments, blank ones)
// are kept as they are. It is always replaced as a whole: readers see the old settings or the new, and a power cut
// leaves one of them. Writers wait for each other by a lock on FILE.lock.
//
// Operations throw Error. One thread; any number of processes.
class Settings {
 public:
  static constexpr std::size_t kMaxName = 64;
  static constexpr std::size_t kMaxValue = 4000;  // a line of a listing that reads lines of 4095 characters

  // `file` need not exist; Set() makes it and its folder. Writing waits for other writers as long as `lock_limit`.
  explicit Settings(const std::string& file, std::chrono::milliseconds lock_limit = std::chrono::seconds(5));

  // Nothing when there is no such setting.
  std::optional<std::string> Get(const std::string& name) const;

  void Set(const std::string& name, const std::string& value);

  // Takes the setting away; a name that is not set is not an error.
  void Remove(const std::string& name);

  // All settings, sorted by name.
  std::map<std::string, std::string> All() const;

 private:
  // Sets or removes.
  void Change(const std::string& name, const std::optional<std::string>& value);

  const std::string file_;
  const std::chrono::milliseconds lock_limit_;
};

// Refuse names and values that can't stand in the file or in a command line: a name is a letter or underscore, then
// letters, digits and "_.-", 64 at most; a value is one line of printable text.
void CheckName(const std::string& name);
void CheckValue(const std::string& value);

}  // namespace sysconfig

#endif  // DEVICE_SYSCONFIG_SETTINGS_H_
