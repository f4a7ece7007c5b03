// How long tests wait for events that must come.
#ifndef PLATFORM_TESTING_LIMITS_H_
#define PLATFORM_TESTING_LIMITS_H_

#include <chrono>

namespace vextest {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define VEXTEST_SANITIZED
#elif defined(__has_feature)  // how clang tells it
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define VEXTEST_SANITIZED
#endif
#endif

// A healthy run needs a fraction of it, also on a busy machine; only a failing test waits to its end.
#ifdef VEXTEST_SANITIZED
constexpr std::chrono::milliseconds kLimit{60'000};
#else
constexpr std::chrono::milliseconds kLimit{20'000};
#endif

}  // namespace vextest

#endif  // PLATFORM_TESTING_LIMITS_H_
