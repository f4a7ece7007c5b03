// Looks at a figure of the process's metrics.
#ifndef PLATFORM_TESTING_FIGURE_H_
#define PLATFORM_TESTING_FIGURE_H_

#include <cstddef>
#include <string>

#include "klbase/metrics.h"

namespace vextest {

// What stands behind `series`, a name with its labels in the order of their names; "" when there is none.
inline std::string Figure(const std::string& series) {
  const std::string text = "\n" + klbase::MetricsText();
  const std::size_t at = text.find("\n" + series + " ");
  if (at == std::string::npos) return "";
  const std::size_t begin = at + series.size() + 2;
  return text.substr(begin, text.find('\n', begin) - begin);
}

}  // namespace vextest

#endif  // PLATFORM_TESTING_FIGURE_H_
