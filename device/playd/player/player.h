// One player: at most one open medium, shown on one layer.
#ifndef DEVICE_PLAYD_PLAYER_PLAYER_H_
#define DEVICE_PLAYD_PLAYER_PLAYER_H_

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "playd/canvas/canvas.h"
#include "playd/error_code.h"
#include "playd/media/media.h"
#include "playd/player/play_state.h"
#include "playd/player/worker.h"
#include "playd/sound/mixer.h"

namespace playd {

// Hears the events of players. Called on the players' own threads, several at once, with no lock held; must not wait
// and must not call the player back.
class PlayerListener {
 public:
  virtual ~PlayerListener() = default;
  virtual void OnPlayState(const std::string& id, const std::string& url, PlayState state) = 0;
  // After each seek that was begun: where it arrived, or why not.
  virtual void OnSeekDone(const std::string& id, const Position& position, const Outcome& outcome) = 0;
};

// A medium to play, its place on the canvas and in time.
struct MediaRequest {
  std::string url;
  std::int32_t media_type = 0;   // 0 to 3, lp.v1.MediaType: what the medium must be; 0: anything
  std::int32_t file_type = 0;    // 0 to 3, lp.v1.FileType; likewise
  bool play_immediately = true;  // false: opened and shown, paused at its first picture
  std::uint64_t start_ms = 0;    // where play begins; without meaning for a picture
  std::uint32_t effect = 0;      // how the picture appears, 0 to 2: see Effect
  std::uint64_t effect_ms = 0;   // how long that takes, 0 to 60000; without meaning for effect 0
  Rectangle rectangle;
  std::uint32_t priority = 0;
};

struct PlayerLimits {
  std::chrono::milliseconds media{1500};  // for one thing asked of a medium; opening that takes longer is given up
  std::chrono::milliseconds reply{1800};  // until a caller gets an answer of any kind
};

// Operations may be called from any thread. They run one after the other on the player's own thread, and every one
// returns within the reply limit: a medium that hangs delays its own player only.
class Player {
 public:
  static constexpr double kMinSpeed = 0.03;
  static constexpr double kMaxSpeed = 32.0;
  static constexpr std::uint32_t kMaxVolume = 100;

  // Canvas, mixer and listener must outlive the player.
  Player(const std::string& id, Canvas& canvas, Mixer& mixer, PlayerListener& listener, const PlayerLimits& limits);
  Player(const Player&) = delete;
  Player& operator=(const Player&) = delete;
  // Stops play and waits for it; see Stop() for the impatient.
  ~Player() { Stop(); }

  // Opens a medium and shows its first picture; plays from there if asked to. Refused while one is open.
  Outcome Open(const MediaRequest& request);

  // Replaces the open medium. The old one plays on until the new one is ready, also when the new one is refused, of
  // which only the caller hears then. Speed and volume stay. While an effect goes on the old medium's pictures move
  // still, but its sound has ended.
  Outcome Switch(const MediaRequest& request);

  // Closes the medium, which ends its play. With `keep_picture` only the file is let go: the last picture stays where
  // it is until the next medium is opened or this is called without.
  Outcome Close(bool keep_picture);

  // Refused at the end of play when `pause`; else play begins again there.
  Outcome SetPause(bool pause);
  Outcome Seek(std::uint32_t position_ms);

  // 0.03 to 32 times normal speed, backward when negative: play then begins at the end of a medium and ends at its
  // beginning. Stays until set anew, also for media opened later; needs no open medium.
  Outcome SetSpeed(float speed);

  // 0 to 100 percent of the medium's loudness. Stays until set anew; needs no open medium.
  Outcome SetVolume(std::uint32_t volume);

  // Whether the USB storage that media come from is plugged in (1) or not (0). Shown in Describe(); a medium that goes
  // missing fails by itself.
  Outcome SetUsbLink(std::uint32_t state);

  Outcome GetPosition(Position& position);
  Outcome GetMediaInfo(MediaInfo& info);

  // One line for an operator: what is played and how. Says "busy" when the player is, after `limit`.
  std::string Describe(std::chrono::milliseconds limit);

  // Takes no more operations and ends play as soon as possible; does not wait.
  void Stop() {
    stop_ = true;
    worker_.Stop();
  }
  // True when nothing of this player runs any more, within `limit`; destruction is then immediate.
  bool WaitStopped(std::chrono::milliseconds limit) { return worker_.WaitStopped(limit); }

 private:
  enum class State { kClosed, kOpened, kPlaying, kPaused, kEnded };

  // The following run on the worker's thread, to which all state below but `stop_` belongs.
  Outcome DoOpen(const MediaRequest& request);
  Outcome Prepare(const MediaRequest& request, Media::Deadline deadline, std::unique_ptr<Media>& media);
  Outcome Adopt(std::unique_ptr<Media> media, const MediaRequest& request, Media::Deadline deadline);
  void ShowInPlaceOfTheOld(Media& media, const MediaRequest& request);
  void ClearAwayLeaving();
  Outcome DoPause(Media::Deadline deadline);
  Outcome DoResume(Media::Deadline deadline);
  Outcome DoSeek(std::uint32_t position_ms, Media::Deadline deadline);
  Outcome DoSetSpeed(double speed, Media::Deadline deadline);
  std::uint64_t BeginningOf(const Media& media) const;
  Outcome Restart(Media::Deadline deadline);
  void CloseMedia();
  std::string DescribeNow() const;
  void OnWake();
  void OnStop();

  Outcome NeedMedia() const;
  void Report(PlayState state) const;
  void ReportEndBeforeItsEnd() const;
  Outcome Run(std::function<Outcome(Media::Deadline)> operation);

  const std::string id_;
  Canvas& canvas_;
  Mixer& mixer_;
  PlayerListener& listener_;
  const PlayerLimits limits_;

  std::atomic<bool> stop_{false};
  State state_ = State::kClosed;
  std::unique_ptr<Media> media_;       // null when closed
  std::unique_ptr<Layer> kept_layer_;  // the picture that Close(true) left
  // What an effect lets go of, until that is over.
  struct Leaving {
    std::unique_ptr<Media> media;
    std::unique_ptr<Layer> layer;

    bool IsFading() const;
  };
  Leaving leaving_;
  double speed_ = 1.0;
  double volume_ = 1.0;
  std::optional<std::uint32_t> usb_state_;  // none: nobody said

  Worker worker_;  // last: its thread uses all of the above
};

}  // namespace playd

#endif  // DEVICE_PLAYD_PLAYER_PLAYER_H_
