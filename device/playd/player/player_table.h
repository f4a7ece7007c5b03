// All players, by their id.
#ifndef DEVICE_PLAYD_PLAYER_PLAYER_TABLE_H_
#define DEVICE_PLAYD_PLAYER_PLAYER_TABLE_H_

#include <chrono>
#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "playd/player/player.h"

namespace playd {

// Any thread.
class PlayerTable {
 public:
  // Each player costs a thread or two. Displays have fewer layers than this.
  static constexpr std::size_t kMaxPlayers = 64;
  static constexpr std::size_t kMaxIdLength = 256;

  // Canvas, mixer and listener must outlive the table.
  PlayerTable(Canvas& canvas, Mixer& mixer, PlayerListener& listener, const PlayerLimits& limits);
  PlayerTable(const PlayerTable&) = delete;
  PlayerTable& operator=(const PlayerTable&) = delete;
  // Waits for every player; see StopAll().
  ~PlayerTable() = default;

  Outcome Create(const std::string& id);

  // Ends play and forgets the player; the id is free at once. Waits for the reply limit at most: a player that hangs is
  // put aside and cleared away later.
  Outcome Delete(const std::string& id);

  // Null when there is none. Shared, because another caller may delete it while this one works with it.
  std::shared_ptr<Player> Find(const std::string& id) const;

  // One line for each player, in the order of their ids; see Player::Describe().
  std::string Describe() const;

  // Stops all players and takes no new ones. False when one of them still hangs after `limit`: destroying the table
  // would then wait for it.
  bool StopAll(std::chrono::milliseconds limit);

 private:
  void ClearAwayStopped();

  Canvas& canvas_;
  Mixer& mixer_;
  PlayerListener& listener_;
  const PlayerLimits limits_;
  mutable absl::Mutex mutex_;
  std::map<std::string, std::shared_ptr<Player>> players_ ABSL_GUARDED_BY(mutex_);
  std::vector<std::shared_ptr<Player>> leaving_ ABSL_GUARDED_BY(mutex_);
  bool closing_ ABSL_GUARDED_BY(mutex_) = false;
};

}  // namespace playd

#endif  // DEVICE_PLAYD_PLAYER_PLAYER_TABLE_H_
