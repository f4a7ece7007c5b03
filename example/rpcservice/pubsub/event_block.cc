#include "example/rpcservice/pubsub/event_block.h"

#include <iostream>
#include <string>

namespace {

constexpr std::string_view kBlockStart = "***************************************\n";

}  // namespace

void PrintEventBlock(std::initializer_list<EventLine> lines) {
  std::string text(kBlockStart);
  for (const auto& line : lines) text.append(line.label).append(line.value).push_back('\n');
  if (!std::cout) std::cout.clear();  // one failed write, to a full disk say, must not silence all later events
  std::cout.write(text.data(), static_cast<std::streamsize>(text.size())).flush();
}
