// sysconfig: reads, writes and lists the device's persistent settings.
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sysconfig/settings.h"

namespace {

constexpr char kDefaultFile[] = "/usr/kelo/etc/sysconfig.conf";
constexpr char kFileFlag[] = "--file=";

constexpr int kDone = 0;
constexpr int kFailed = 1;   // no such setting, or the file can't be read or written
constexpr int kRefused = 2;  // wrong words, a bad name or a bad value

constexpr char kUsage[] =
    "usage: sysconfig [--file=FILE] COMMAND\n"
    "  get NAME          write NAME=VALUE; nothing, with status 1, when there is no such setting\n"
    "  set NAME VALUE... write the setting; several words are joined with blanks\n"
    "  set NAME          take the setting away\n"
    "  print             write all settings, NAME=VALUE, sorted by name\n"
    "The settings are in FILE; without the flag in the file that SYSCONFIG_FILE names, else in "
    "/usr/kelo/etc/sysconfig.conf.\n"
    "A name is a letter, then letters, digits and _.-, 64 at most; a value is one line, 4000 bytes at most.\n";

std::string SettingsFile(std::vector<std::string>& words) {
  if (!words.empty() && words.front().starts_with(kFileFlag)) {
    std::string file = words.front().substr(std::string_view(kFileFlag).size());
    words.erase(words.begin());
    if (file.empty()) throw sysconfig::Error("--file= needs the name of a file", true);
    return file;
  }
  const char* file = std::getenv("SYSCONFIG_FILE");
  return file != nullptr && *file != '\0' ? file : kDefaultFile;
}

// Output that gets lost (a full disk, a closed pipe) is a failure too.
int Finish() {
  if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return kDone;
  throw sysconfig::Error("can't write the answer", false);
}

int Get(const sysconfig::Settings& settings, const std::string& name) {
  const std::optional<std::string> value = settings.Get(name);
  if (!value) return kFailed;  // silent: who asks may only want to know whether it is set
  std::printf("%s=%s\n", name.c_str(), value->c_str());
  return Finish();
}

int Set(sysconfig::Settings& settings, const std::vector<std::string>& words) {
  const std::string& name = words[1];
  if (words.size() == 2) {
    settings.Remove(name);
    return kDone;
  }
  std::string value = words[2];
  for (std::size_t i = 3; i < words.size(); ++i) value += " " + words[i];
  settings.Set(name, value);
  return kDone;
}

int Print(const sysconfig::Settings& settings) {
  for (const auto& [name, value] : settings.All()) std::printf("%s=%s\n", name.c_str(), value.c_str());
  return Finish();
}

int Run(std::vector<std::string> words) {
  sysconfig::Settings settings(SettingsFile(words));
  const std::string command = words.empty() ? "" : words[0];
  if (command == "get" && words.size() == 2) return Get(settings, words[1]);
  if (command == "set" && words.size() >= 2) return Set(settings, words);
  if (command == "print" && words.size() == 1) return Print(settings);
  if (command == "--help" || command == "help") {
    std::fputs(kUsage, stdout);
    return Finish();
  }
  std::fputs(kUsage, stderr);
  return kRefused;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Run(std::vector<std::string>(argv + 1, argv + argc));
  } catch (const sysconfig::Error& error) {
    std::fprintf(stderr, "sysconfig: %s\n", error.what());
    return error.usage() ? kRefused : kFailed;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "sysconfig: %s\n", error.what());
    return kFailed;
  }
}
