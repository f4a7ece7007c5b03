#include "example/apisdk/playd/player_words.h"

#include <cstddef>
#include <set>
#include <string_view>
#include <vector>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "core/rpc_url.h"
#include "example/file_completion.h"

namespace {

constexpr std::size_t kMostRemembered = 1000;

ABSL_CONST_INIT absl::Mutex players_mutex(absl::kConstInit);

std::set<std::string>& Players() ABSL_EXCLUSIVE_LOCKS_REQUIRED(players_mutex) {
  static auto* const players = new std::set<std::string>;  // sessions may outlive the static objects
  return *players;
}

std::vector<cli::ParameterCandidate> CompletePlayer(const std::string& typed) {
  const absl::MutexLock lock(&players_mutex);
  return CompleteWord({Players().begin(), Players().end()}, typed);
}

// A medium's path means what it means to the player, wherever the tool was started. A path with a blank can't be typed:
// the commands take words without any.
std::vector<cli::ParameterCandidate> CompleteMedium(const std::string& typed) {
  constexpr std::string_view kAbstract = "unix-abstract:";
  const std::string& address = core::RpcUnixSocketUrl::rpc_url_playd_;
  auto candidates = CompleteFile(typed, ViewOfServer(address.substr(kAbstract.size())));
  std::erase_if(candidates,
                [](const auto& candidate) { return candidate.word.find_first_of(" \t\n\v\f\r") != std::string::npos; });
  return candidates;
}

auto OneOf(const std::vector<std::string>& words) {
  return [words](const std::string& typed) { return CompleteWord(words, typed); };
}

}  // namespace

void RememberPlayer(const std::string& id) {
  const absl::MutexLock lock(&players_mutex);
  if (Players().size() < kMostRemembered) Players().insert(id);
}

void ForgetPlayer(const std::string& id) {
  const absl::MutexLock lock(&players_mutex);
  Players().erase(id);
}

const ParameterHelps& PlayerWords() {
  static const auto* const helps = new ParameterHelps{
      {"id", {CompletePlayer, ""}},
      {"url", {CompleteMedium, ""}},
      {"type", {OneOf({"0", "1", "2"}), "type: 0 1920x1080, 1 3840x1080, 2 3840x2160"}},
      {"play_immed", {OneOf({"0", "1"}), ""}},
      {"only_release_fd", {OneOf({"0", "1"}), ""}},
      {"state", {OneOf({"0", "1"}), "state: 1 pauses, 0 goes on"}},
  };
  return *helps;
}
