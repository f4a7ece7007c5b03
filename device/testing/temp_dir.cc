#include "testing/temp_dir.h"

#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace device::testing {

TempDir::TempDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "device-test-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("can't make a folder " + pattern);
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::vector<std::string> TempDir::Files(const std::string& suffix) const {
  std::vector<std::string> files;
  for (const auto& entry : std::filesystem::directory_iterator(path_)) {
    if (entry.is_regular_file() && entry.path().string().ends_with(suffix)) files.push_back(entry.path().string());
  }
  std::sort(files.begin(), files.end());
  return files;
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

void WriteFile(const std::string& path, const std::string& text) { std::ofstream(path, std::ios::binary) << text; }

std::string UniqueName(const std::string& stem) {
  static std::atomic<int> count{0};
  return stem + "-" + std::to_string(getpid()) + "-" + std::to_string(++count);
}

}  // namespace device::testing
