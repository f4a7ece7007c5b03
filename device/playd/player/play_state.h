// The numbers that the player publishes in lp.v1.ResultRepor.play_state, on the topic "layer/result_repor".
#ifndef DEVICE_PLAYD_PLAYER_PLAY_STATE_H_
#define DEVICE_PLAYD_PLAYER_PLAY_STATE_H_

#include <cstdint>

namespace playd {

// | Number | Name     | Published when                                                                          |
// |--------|----------|-----------------------------------------------------------------------------------------|
// | 1      | kStarted | a medium begins to play: at once, by its first resume, or by a resume at its end        |
// | 2      | kPaused  | play was halted                                                                         |
// | 3      | kResumed | play goes on: after a pause, or by a seek out of the end                                |
// | 4      | kEnded   | the medium was played to its end, where its last picture stays and from where a resume  |
// |        |          | or a seek plays it again; or before its end it was closed, or its player deleted, or    |
// |        |          | one that does not play yet took its place                                               |
// | 5      | kFailed  | the named medium can't be opened, or broke off while it played and was closed           |
//
// 0 is never published. A medium in whose place another one plays has no end of its own, the other's start tells; and
// of one that is refused while another plays on only the caller hears. A picture has no end but its closing. A pause
// while paused and a resume while playing publish nothing.
enum class PlayState : std::uint32_t {
  kStarted = 1,
  kPaused = 2,
  kResumed = 3,
  kEnded = 4,
  kFailed = 5,
};

}  // namespace playd

#endif  // DEVICE_PLAYD_PLAYER_PLAY_STATE_H_
