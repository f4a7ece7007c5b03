#include "playd/canvas/whole_file.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "base/new_file.h"

namespace playd {
namespace {

bool Write(const std::string& path, std::string_view content) {
  unlink(path.c_str());  // of a run that was killed
  const device::NewFile created(path);
  if (created.Error() != 0) {
    errno = created.Error();
    return false;
  }
  std::ofstream file(created.Name(), std::ios::binary | std::ios::trunc);
  file.write(content.data(), static_cast<std::streamsize>(content.size()));
  file.close();
  return !file.fail();
}

}  // namespace

Outcome SaveWhole(const std::string& path, std::string_view content) {
  const std::string partial = path + ".part";
  if (Write(partial, content) && std::rename(partial.c_str(), path.c_str()) == 0) return Outcome::Ok();
  const int reason = errno;
  if (reason != EEXIST) unlink(partial.c_str());
  return Outcome::Error(ErrorCode::kInvalidArgument, "can't write " + path + ": " + std::strerror(reason));
}

}  // namespace playd
