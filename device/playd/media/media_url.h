// From an operator's words for a medium to a URI.
#ifndef DEVICE_PLAYD_MEDIA_MEDIA_URL_H_
#define DEVICE_PLAYD_MEDIA_MEDIA_URL_H_

#include <string>

#include "playd/error_code.h"

namespace playd {

// Resolves an absolute or relative path, or a file:, http: or https: URI, to a URI. Refuses other schemes
// (kInvalidArgument) and local files that are missing, unreadable or not regular files (kFileMissing): opening a pipe,
// for one, could wait for ever.
Outcome ResolveUrl(const std::string& url, std::string& uri);

}  // namespace playd

#endif  // DEVICE_PLAYD_MEDIA_MEDIA_URL_H_
