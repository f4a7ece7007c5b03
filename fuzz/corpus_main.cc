// Runs a fuzz target over the files of a folder, as a test: corpus FOLDER, or corpus FILE...
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <vector>

#include "fuzz/fuzz.h"

namespace {

std::vector<std::filesystem::path> FilesOf(int argc, char** argv) {
  std::vector<std::filesystem::path> files;
  for (int i = 1; i < argc; ++i) {
    if (!std::filesystem::is_directory(argv[i])) {
      files.emplace_back(argv[i]);
      continue;
    }
    for (const auto& entry : std::filesystem::directory_iterator(argv[i])) files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

bool Run(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  const std::vector<char> bytes{std::istreambuf_iterator<char>(in), {}};
  if (!in.is_open() || in.bad()) {
    std::fprintf(stderr, "%s cannot be read\n", file.c_str());
    return false;
  }
  // The last name printed is the input of a failing property.
  std::fprintf(stderr, "%s\n", file.c_str());
  LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
  return true;
}

}  // namespace

int main(int argc, char** argv) try {
  const auto files = FilesOf(argc, argv);
  if (files.empty()) {
    std::fprintf(stderr, "no input: name a folder with inputs, or files\n");
    return 1;
  }
  const bool all_read = std::all_of(files.begin(), files.end(), &Run);
  std::printf("%zu inputs\n", files.size());
  return all_read ? 0 : 1;
} catch (const std::exception& error) {
  std::fprintf(stderr, "%s\n", error.what());
  return 1;
}
