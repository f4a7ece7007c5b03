#include "example/rpcservice/pubsub/event_block.h"

#include <iostream>

#include "absl/synchronization/mutex.h"

namespace {

constexpr std::string_view kBlockStart = "***************************************\n";

// Held while a block is written. Nothing but the stream runs under it, so nobody can wait for it in a circle. Never
// destroyed: events arrive until the clients are gone.
absl::Mutex& PrintMutex() {
  static auto& mutex = *new absl::Mutex;
  return mutex;
}

void PrintLine(std::string_view line) {
  std::cout.write(line.data(), static_cast<std::streamsize>(line.size())).flush();
}

}  // namespace

void PrintEventBlock(std::initializer_list<EventLine> lines) {
  std::string text;
  absl::MutexLock lock(&PrintMutex());
  std::cout.clear();  // one failed write, to a full disk say, must not silence all later events
  PrintLine(kBlockStart);
  for (const auto& line : lines) {
    text.assign(line.label).append(line.value).push_back('\n');
    PrintLine(text);
  }
}
