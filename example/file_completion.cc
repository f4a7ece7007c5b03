#include "example/file_completion.h"

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <system_error>

std::vector<cli::ParameterCandidate> CompleteFile(const std::string& typed) {
  constexpr std::size_t kMostLookedAt = 4096;  // the thread serves others, too
  const std::size_t name_start = typed.rfind('/') == std::string::npos ? 0 : typed.rfind('/') + 1;
  const std::string folder = typed.substr(0, name_start);
  const std::string prefix = typed.substr(name_start);
  std::vector<cli::ParameterCandidate> found;
  std::error_code error;
  std::filesystem::directory_iterator entries(folder.empty() ? "." : folder, error);
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
