// The topics on which the player publishes. docs/python/generate.sh makes Python constants of these lines.
#ifndef PLAYER_V1_TOPICS_H_
#define PLAYER_V1_TOPICS_H_

namespace lp::v1 {

inline constexpr char kGetSeekOfUplayerTopic[] = "layer/get_seek_of_uplayer";  // lp.v1.GetSeekOfUplayerResp
inline constexpr char kResultReporTopic[] = "layer/result_repor";              // lp.v1.ResultRepor

}  // namespace lp::v1

#endif  // PLAYER_V1_TOPICS_H_
