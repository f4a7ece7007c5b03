#include "playd/media/media_url.h"

#include <gst/gst.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iterator>

namespace playd {
namespace {

Outcome CannotOpen(const std::string& path) {
  return Outcome::Error(ErrorCode::kFileMissing, "can't open " + path + ": " + std::strerror(errno));
}

Outcome CheckLocalFile(const std::string& path) {
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0) return CannotOpen(path);
  if (!S_ISREG(status.st_mode)) return Outcome::Error(ErrorCode::kFileMissing, path + " is not a regular file");
  if (access(path.c_str(), R_OK) != 0) return CannotOpen(path);
  return Outcome::Ok();
}

// The local file that `url` names. Any other scheme is refused: depending on its plugins GStreamer takes "v4l2:" and
// more.
Outcome ToPath(const std::string& url, std::string& path) {
  path = url;
  if (url.starts_with("file://")) {
    gchar* name = g_filename_from_uri(url.c_str(), nullptr, nullptr);
    if (name == nullptr) return Outcome::Error(ErrorCode::kInvalidArgument, url + " is not a valid file URI");
    path = name;
    g_free(name);
  } else if (gst_uri_is_valid(url.c_str())) {
    return Outcome::Error(
        ErrorCode::kInvalidArgument,
        url + " is neither a file nor an address of file:, http:, https:, rtsp:, rtmp:, udp: or srt:");
  }
  return Outcome::Ok();
}

}  // namespace

bool IsLive(const std::string& uri) {
  static constexpr const char* kSchemes[] = {"rtsp://", "rtsps://", "rtmp://", "rtmps://", "udp://", "srt://"};
  return std::any_of(std::begin(kSchemes), std::end(kSchemes),
                     [&uri](const char* scheme) { return uri.starts_with(scheme); });
}

Outcome ResolveUrl(const std::string& url, std::string& uri) {
  if (url.empty()) return Outcome::Error(ErrorCode::kInvalidArgument, "the url is empty");
  if (url.find('\0') != std::string::npos) {
    return Outcome::Error(ErrorCode::kInvalidArgument, "the url holds a zero byte");
  }
  if (url.starts_with("http://") || url.starts_with("https://") || IsLive(url)) {
    uri = url;
    return Outcome::Ok();
  }
  std::string path;
  if (auto outcome = ToPath(url, path); !outcome.ok()) return outcome;
  if (auto outcome = CheckLocalFile(path); !outcome.ok()) return outcome;
  gchar* text = gst_filename_to_uri(std::filesystem::absolute(path).c_str(), nullptr);
  if (text == nullptr) return Outcome::Error(ErrorCode::kInvalidArgument, path + " can't be made a URI");
  uri = text;
  g_free(text);
  return Outcome::Ok();
}

}  // namespace playd
