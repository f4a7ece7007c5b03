// A folder that is removed with what is in it.
#ifndef DEVICE_TESTING_TEMP_DIR_H_
#define DEVICE_TESTING_TEMP_DIR_H_

#include <string>
#include <vector>

namespace device::testing {

class TempDir {
 public:
  TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  ~TempDir();

  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

  // Full paths of the regular files in it whose names end in `suffix`, sorted.
  std::vector<std::string> Files(const std::string& suffix = "") const;

 private:
  std::string path_;
};

std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& text);

// A name that no other process or earlier call uses, for a socket: "encd-test-1234-1".
std::string UniqueName(const std::string& stem);

}  // namespace device::testing

#endif  // DEVICE_TESTING_TEMP_DIR_H_
