// The descriptors of this process.
#ifndef PLATFORM_TESTING_OPEN_FILES_H_
#define PLATFORM_TESTING_OPEN_FILES_H_

#include <filesystem>
#include <iterator>

namespace vextest {

// Their number, with the one by which it is found.
inline int OpenFiles() {
  const std::filesystem::directory_iterator files("/proc/self/fd");
  return static_cast<int>(std::distance(begin(files), end(files)));
}

}  // namespace vextest

#endif  // PLATFORM_TESTING_OPEN_FILES_H_
