#include "platform/testing/scratch_folder.h"

#include <stdlib.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

namespace vextest {

ScratchFolder::ScratchFolder() : path_(std::filesystem::temp_directory_path() / "vextest-XXXXXX") {
  if (mkdtemp(path_.data()) == nullptr) throw std::system_error(errno, std::generic_category(), path_);
}

ScratchFolder::~ScratchFolder() {
  chmod(path_.c_str(), 0700);  // a test may have taken the right to write away
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string ScratchFolder::Write(std::string_view name, std::string_view content, mode_t mode) const {
  std::string path = *this / name;
  WriteFile(path, content);
  chmod(path.c_str(), mode);
  return path;
}

std::vector<std::string> ScratchFolder::Files(std::string_view suffix) const {
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

void WriteFile(const std::string& path, std::string_view content) { std::ofstream(path, std::ios::binary) << content; }

}  // namespace vextest
