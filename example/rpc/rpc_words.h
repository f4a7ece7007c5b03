// The words of the commands that send or receive: options apart from the rest.
#ifndef EXAMPLE_RPC_RPC_WORDS_H_
#define EXAMPLE_RPC_RPC_WORDS_H_

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "example/rpc/rpc_address.h"

namespace rpc {

struct RpcWords {
  std::vector<std::string> words;  // without the options
  std::optional<Address> to;
  std::optional<std::chrono::milliseconds> within;
  bool json = false;
};

// Takes "--to ADDRESS", "--within SECONDS" (above 0, up to 86400) and "--json" out of the words, wherever they stand.
// Throws a WordRefusal.
RpcWords ReadOptions(const std::vector<std::string>& words);

// As far as they are typed: the options in `words`, the last of which is being typed, and what stands around them.
struct TypedWords {
  std::vector<std::string> words;  // without options; the last one is being typed, unless it belongs to an option
  std::string open_option;         // "--to" when the last word is its value
};
TypedWords LeaveOutOptions(const std::vector<std::string>& words);

}  // namespace rpc

#endif  // EXAMPLE_RPC_RPC_WORDS_H_
