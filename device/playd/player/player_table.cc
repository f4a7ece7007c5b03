#include "playd/player/player_table.h"

#include <algorithm>
#include <utility>

namespace playd {
namespace {

using std::chrono::duration_cast;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr auto kDescribeLimit = milliseconds(200);  // for a player that hangs

}  // namespace

PlayerTable::PlayerTable(Canvas& canvas, Mixer& mixer, PlayerListener& listener, const PlayerLimits& limits)
    : canvas_(canvas), mixer_(mixer), listener_(listener), limits_(limits) {}

Outcome PlayerTable::Create(const std::string& id) {
  if (id.empty() || id.size() > kMaxIdLength) {
    return Outcome::Error(ErrorCode::kInvalidArgument,
                          "the unique_id must have 1 to " + std::to_string(kMaxIdLength) + " characters");
  }
  ClearAwayStopped();
  const absl::MutexLock lock(&mutex_);
  if (closing_) return Outcome::Error(ErrorCode::kBusy, "the player daemon is stopping");
  if (players_.contains(id)) return Outcome::Error(ErrorCode::kPlayerExists, "player " + id + " exists already");
  if (players_.size() + leaving_.size() >= kMaxPlayers) {
    return Outcome::Error(ErrorCode::kTooManyPlayers,
                          "there are " + std::to_string(kMaxPlayers) + " players already; delete one first");
  }
  players_.emplace(id, std::make_shared<Player>(id, canvas_, mixer_, listener_, limits_));
  return Outcome::Ok();
}

Outcome PlayerTable::Delete(const std::string& id) {
  std::shared_ptr<Player> player;
  {
    const absl::MutexLock lock(&mutex_);
    const auto found = players_.find(id);
    if (found == players_.end()) return Outcome::Error(ErrorCode::kUnknownPlayer, "there is no player " + id);
    player = found->second;
    // Kept until it has stopped: destroying it would wait for a medium that hangs. It counts as a player until then.
    leaving_.push_back(std::move(found->second));
    players_.erase(found);
  }
  player->Stop();
  player->WaitStopped(limits_.reply);
  player.reset();
  ClearAwayStopped();
  return Outcome::Ok();
}

std::shared_ptr<Player> PlayerTable::Find(const std::string& id) const {
  const absl::MutexLock lock(&mutex_);
  const auto found = players_.find(id);
  return found == players_.end() ? nullptr : found->second;
}

std::string PlayerTable::Describe() const {
  std::map<std::string, std::shared_ptr<Player>> players;
  {
    const absl::MutexLock lock(&mutex_);
    players = players_;
  }
  std::string text;
  for (const auto& [id, player] : players) text += player->Describe(kDescribeLimit) + "\n";
  return text;
}

void PlayerTable::ClearAwayStopped() {
  // Destroyed after the lock is gone.
  std::vector<std::shared_ptr<Player>> stopped;
  const absl::MutexLock lock(&mutex_);
  const auto first = std::partition(leaving_.begin(), leaving_.end(),
                                    [](const auto& player) { return !player->WaitStopped(milliseconds(0)); });
  stopped.assign(std::make_move_iterator(first), std::make_move_iterator(leaving_.end()));
  leaving_.erase(first, leaving_.end());
}

bool PlayerTable::StopAll(milliseconds limit) {
  const auto deadline = steady_clock::now() + limit;
  std::vector<std::shared_ptr<Player>> all;
  {
    const absl::MutexLock lock(&mutex_);
    closing_ = true;
    all = leaving_;
    for (auto& [id, player] : players_) all.push_back(player);
  }
  // All are told before one is waited for, so that the end takes as long as the slowest, not as their sum.
  for (const auto& player : all) player->Stop();
  return std::all_of(all.begin(), all.end(), [deadline](const auto& player) {
    return player->WaitStopped(std::max(milliseconds(0), duration_cast<milliseconds>(deadline - steady_clock::now())));
  });
}

}  // namespace playd
