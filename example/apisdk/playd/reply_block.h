// Shows replies of the player API as blocks of labelled lines.
#ifndef EXAMPLE_APISDK_PLAYD_REPLY_BLOCK_H_
#define EXAMPLE_APISDK_PLAYD_REPLY_BLOCK_H_

#include <ostream>
#include <string_view>

#include "apisdk/api_player.h"

// Write the header with the command's name, then the reply's fields, each line flushed.
void PrintReply(std::ostream& out, std::string_view command, const apis::ApiPlayer::UniversalResp& reply);
void PrintReply(std::ostream& out, std::string_view command, const apis::ApiPlayer::GetSeekOfUplayerResp& reply);
void PrintReply(std::ostream& out, std::string_view command, const apis::ApiPlayer::GetMediaInfoOfUplayerResp& reply);

#endif  // EXAMPLE_APISDK_PLAYD_REPLY_BLOCK_H_
