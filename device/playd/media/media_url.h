// From an operator's words for a medium to a URI.
#ifndef DEVICE_PLAYD_MEDIA_MEDIA_URL_H_
#define DEVICE_PLAYD_MEDIA_MEDIA_URL_H_

#include <string>

#include "playd/error_code.h"

namespace playd {

// Resolves an absolute or relative path, or an address of a stream, to a URI. Refuses schemes other than file:, http:,
// https: and the live ones (kInvalidArgument) and local files that are missing, unreadable or not regular files
// (kFileMissing): opening a pipe, for one, could wait for ever.
Outcome ResolveUrl(const std::string& url, std::string& uri);

// True of the addresses of live streams: rtsp:, rtsps:, rtmp:, rtmps:, udp: and srt:. What is missed there is gone,
// they begin where they are when they are opened, and some of them deliver nothing while paused.
bool IsLive(const std::string& uri);

}  // namespace playd

#endif  // DEVICE_PLAYD_MEDIA_MEDIA_URL_H_
