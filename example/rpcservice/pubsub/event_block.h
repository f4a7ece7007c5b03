// Prints the blocks of lines that received events become.
#ifndef EXAMPLE_RPCSERVICE_PUBSUB_EVENT_BLOCK_H_
#define EXAMPLE_RPCSERVICE_PUBSUB_EVENT_BLOCK_H_

#include <initializer_list>
#include <string>
#include <string_view>

// One line of a block: its label, ended by the colon, and the value as it is shown.
struct EventLine {
  std::string_view label;
  std::string value;
};

// Writes a line of 39 asterisks and then `lines` to standard output, as one piece, and flushes it: blocks of several
// threads don't mix. Any thread, without a lock; a reader that takes nothing holds up the caller.
void PrintEventBlock(std::initializer_list<EventLine> lines);

#endif  // EXAMPLE_RPCSERVICE_PUBSUB_EVENT_BLOCK_H_
