// The numbers that the player publishes in lp.v1.ResultRepor.play_state, on the topic "layer/result_repor".
#ifndef DEVICE_PLAYD_PLAYER_PLAY_STATE_H_
#define DEVICE_PLAYD_PLAYER_PLAY_STATE_H_

#include <cstdint>

namespace playd {

// | Number | Name     | Published when                                                                          |
// |--------|----------|-----------------------------------------------------------------------------------------|
// | 1      | kStarted | an opened or switched-to medium begins to play, at once or by its first resume          |
// | 2      | kPaused  | play was halted                                                                         |
// | 3      | kResumed | play goes on: after a pause, or by a seek out of the end                                |
// | 4      | kEnded   | the medium was played to its end; its last picture stays, a seek plays on from there    |
// | 5      | kFailed  | the named medium can't be opened, or broke off while it played and was closed           |
//
// 0 is never published. A picture has no end. A pause while paused and a resume while playing publish nothing.
enum class PlayState : std::uint32_t {
  kStarted = 1,
  kPaused = 2,
  kResumed = 3,
  kEnded = 4,
  kFailed = 5,
};

}  // namespace playd

#endif  // DEVICE_PLAYD_PLAYER_PLAY_STATE_H_
