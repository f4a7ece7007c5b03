#include "example/file_completion.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <system_error>

namespace {

// The process that listens at the abstract unix socket `name`; 0 for none.
pid_t ServerOf(const std::string& name) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (name.size() >= sizeof address.sun_path) return 0;
  std::memcpy(address.sun_path + 1, name.data(), name.size());  // behind the zero that makes it abstract
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) return 0;
  ucred server{};
  socklen_t length = sizeof server;
  const bool known = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), size) == 0 &&
                     ::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &server, &length) == 0;
  ::close(fd);
  return known ? server.pid : 0;
}

}  // namespace

FileView ViewOfServer(const std::string& name) {
  const pid_t server = ServerOf(name);
  if (server == 0) return {};
  const std::string process = "/proc/" + std::to_string(server);
  FileView view{process + "/root", process + "/cwd/"};
  return ::access(view.folder.c_str(), X_OK) == 0 ? view : FileView();
}

std::vector<cli::ParameterCandidate> CompleteFile(const std::string& typed, const FileView& view) {
  constexpr std::size_t kMostLookedAt = 4096;  // the thread serves others, too
  const std::size_t name_start = typed.rfind('/') == std::string::npos ? 0 : typed.rfind('/') + 1;
  const std::string folder = typed.substr(0, name_start);
  const std::string prefix = typed.substr(name_start);
  std::vector<cli::ParameterCandidate> found;
  std::error_code error;
  std::filesystem::directory_iterator entries((folder.starts_with('/') ? view.root : view.folder) + folder, error);
  for (std::size_t i = 0; !error && entries != std::filesystem::directory_iterator() && i < kMostLookedAt; ++i) {
    const std::string name = entries->path().filename().string();
    std::error_code unknown;
    const bool is_folder = entries->is_directory(unknown);
    if (name.starts_with(prefix) && (name.front() != '.' || !prefix.empty())) {
      found.push_back({folder + name + (is_folder ? "/" : ""), !is_folder});
    }
    entries.increment(error);
  }
  std::sort(found.begin(), found.end(), [](const auto& a, const auto& b) { return a.word < b.word; });
  return found;
}
