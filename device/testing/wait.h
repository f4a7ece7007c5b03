// Bounded waits for tests.
#ifndef DEVICE_TESTING_WAIT_H_
#define DEVICE_TESTING_WAIT_H_

#include <chrono>
#include <thread>

namespace device::testing {

// Looks at `condition` until it holds; false when it did not within `limit`.
template <typename Condition>
bool WaitUntil(Condition condition, std::chrono::milliseconds limit = std::chrono::seconds(20)) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

}  // namespace device::testing

#endif  // DEVICE_TESTING_WAIT_H_
