// The words and the environment that vexlink was started with.
#ifndef LINK_ARGUMENTS_H_
#define LINK_ARGUMENTS_H_

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "link/cluster/settings.h"

namespace vexlink {

struct Arguments {
  enum class Form { kRun, kHelp, kVersion };
  Form form = Form::kRun;
  ClusterSettings cluster;
  std::string socket;               // "": where the environment and the tool's own rule say
  std::vector<std::string> events;  // words of the monitor; none: all events
  std::size_t buffer = 65536;       // events
  std::string error;                // "" when the words make sense
};

// A variable of the environment, "" where it isn't set.
using Environment = std::function<std::string(const char* name)>;

// `words` are those behind the program's name. What is needed and wasn't said has its default then: the server and the
// node.
Arguments ReadArguments(const std::vector<std::string>& words, const Environment& environment);

extern const char kHelpText[];

}  // namespace vexlink

#endif  // LINK_ARGUMENTS_H_
