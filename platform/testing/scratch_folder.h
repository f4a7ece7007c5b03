// A folder for a test's files.
#ifndef PLATFORM_TESTING_SCRATCH_FOLDER_H_
#define PLATFORM_TESTING_SCRATCH_FOLDER_H_

#include <sys/types.h>

#include <string>
#include <string_view>
#include <vector>

namespace vextest {

// Made in the system's temporary folder; removed by the destructor with everything in it. Any thread.
class ScratchFolder {
 public:
  // Throws std::system_error when it can't be made.
  ScratchFolder();
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;
  ~ScratchFolder();

  const std::string& Path() const { return path_; }
  // The path of a file in it, which need not be there.
  std::string operator/(std::string_view name) const { return path_ + "/" + std::string(name); }

  // Writes a file and returns its path.
  std::string Write(std::string_view name, std::string_view content, mode_t mode = 0600) const;

  // The paths of the regular files in it whose names end in `suffix`, sorted.
  std::vector<std::string> Files(std::string_view suffix = "") const;

 private:
  std::string path_;
};

// Reads a whole file; empty when there is none. Writes a file, in place of its old content.
std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, std::string_view content);

}  // namespace vextest

#endif  // PLATFORM_TESTING_SCRATCH_FOLDER_H_
