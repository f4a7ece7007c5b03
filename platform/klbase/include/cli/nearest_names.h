// "Did you mean": the names that a word with a typing error may stand for.
#ifndef CLI_NEAREST_NAMES_H_
#define CLI_NEAREST_NAMES_H_

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "klbase/export.h"

namespace cli {

// How far `typed` is from `name`: 0 for a difference in case only, 1 for the beginning of it, else the typing errors
// between the two; kFarName when nobody means that.
inline constexpr std::size_t kFarName = 1000;
KLBASE_EXPORT std::size_t NameDistance(std::string_view typed, std::string_view name);

// The `most` names nearest to `typed`, the nearest first; none of those that nobody means. Any thread.
KLBASE_EXPORT std::vector<std::string> NearestNames(std::string_view typed, const std::vector<std::string>& names,
                                                    std::size_t most = 3);

}  // namespace cli

#endif  // CLI_NEAREST_NAMES_H_
