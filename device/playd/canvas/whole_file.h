// Files that appear whole or not at all.
#ifndef DEVICE_PLAYD_CANVAS_WHOLE_FILE_H_
#define DEVICE_PLAYD_CANVAS_WHOLE_FILE_H_

#include <string>
#include <string_view>

#include "playd/error_code.h"

namespace playd {

// Writes `content` under another name, PATH.part, until it is whole: readers of `path` see the old file or the new one.
// kInvalidArgument when it can't be written, with the reason.
Outcome SaveWhole(const std::string& path, std::string_view content);

}  // namespace playd

#endif  // DEVICE_PLAYD_CANVAS_WHOLE_FILE_H_
