// What Tab offers for the words of the player's commands.
#ifndef EXAMPLE_APISDK_PLAYD_PLAYER_WORDS_H_
#define EXAMPLE_APISDK_PLAYD_PLAYER_WORDS_H_

#include <string>

#include "example/completed_command.h"

// The tool remembers the players that were created and deleted from here, in any session: the daemon is not asked while
// somebody types. Any thread.
void RememberPlayer(const std::string& id);
void ForgetPlayer(const std::string& id);

// By the names of the parameters in the menu "playd".
const ParameterHelps& PlayerWords();

#endif  // EXAMPLE_APISDK_PLAYD_PLAYER_WORDS_H_
