#include "console/control/protocol/attached_input.h"

#include <algorithm>
#include <cstddef>
#include <utility>

namespace cli::internal {
namespace {

constexpr unsigned char kIac = 255;
constexpr unsigned char kSb = 250;
constexpr unsigned char kSe = 240;
constexpr unsigned char kWill = 251;  // to kDont 254: with an option
constexpr char kNaws = 31;
constexpr std::size_t kSizeBytes = 5;  // the option, two numbers

}  // namespace

void AttachedInput::Feed(std::string_view bytes, Receiver& receiver) {
  while (!bytes.empty()) {
    if (state_ == State::kTyped) {
      const std::size_t end = std::min(bytes.find(static_cast<char>(kIac)), bytes.size());
      if (end > 0) receiver.OnTyped(bytes.substr(0, end));
      bytes.remove_prefix(end);
      if (bytes.empty()) return;
      state_ = State::kCommand;
    } else {
      FeedCommand(static_cast<unsigned char>(bytes.front()), receiver);
    }
    bytes.remove_prefix(1);
  }
}

void AttachedInput::FeedCommand(unsigned char byte, Receiver& receiver) {
  constexpr std::string_view kTypedIac("\xff");
  switch (state_) {
    case State::kCommand:
      state_ = byte == kSb ? State::kSub : byte >= kWill && byte < kIac ? State::kOption : State::kTyped;
      if (byte == kIac) receiver.OnTyped(kTypedIac);
      break;
    case State::kSub:
      FeedSub(byte);
      break;
    case State::kSubCommand:
      if (byte == kSe) return EndSub(receiver);
      state_ = State::kSub;
      if (sub_.size() <= kSizeBytes) sub_ += static_cast<char>(byte);
      break;
    case State::kOption:
    case State::kTyped:
      state_ = State::kTyped;
      break;
  }
}

// One byte more than a size has is enough to know that it is something else.
void AttachedInput::FeedSub(unsigned char byte) {
  if (byte == kIac) {
    state_ = State::kSubCommand;
  } else if (sub_.size() <= kSizeBytes) {
    sub_ += static_cast<char>(byte);
  }
}

void AttachedInput::EndSub(Receiver& receiver) {
  state_ = State::kTyped;
  const std::string sub = std::exchange(sub_, {});
  if (sub.size() != kSizeBytes || sub.front() != kNaws) return;
  const auto number = [&sub](std::size_t at) {
    return static_cast<unsigned char>(sub[at]) * 256 + static_cast<unsigned char>(sub[at + 1]);
  };
  if (number(1) > 0 && number(3) > 0) receiver.OnWindowSize(number(1), number(3));
}

}  // namespace cli::internal
