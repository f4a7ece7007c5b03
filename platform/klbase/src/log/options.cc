#include "klbase/options.h"

#include "log/environment.h"

// Constant-initialised, so static constructors and destructors of any file may use them.
constinit std::atomic<int32_t> kOptionDebug{0};
constinit std::atomic<int32_t> kOptionLogLevel{20};

namespace {

// The environment's start values hold from the time the library is loaded, so they also reach the records of static
// constructors.
[[maybe_unused]] const bool loaded = [] {
  klbase_internal::SetOptionFromEnvironment("KLBASE_DEBUG", kOptionDebug);
  klbase_internal::SetOptionFromEnvironment("KLBASE_LOG_LEVEL", kOptionLogLevel);
  return true;
}();

}  // namespace
