// Prints the blocks of lines that received events become.
#ifndef EXAMPLE_RPCSERVICE_PUBSUB_EVENT_BLOCK_H_
#define EXAMPLE_RPCSERVICE_PUBSUB_EVENT_BLOCK_H_

#include <google/protobuf/message.h>

#include <initializer_list>
#include <string>
#include <string_view>

// One line of a block: its label, ended by the colon, and the value as it is shown.
struct EventLine {
  std::string_view label;
  std::string value;
};

// Writes a line of 39 asterisks and then `lines` to standard output, as one piece, and flushes it: blocks of several
// threads don't mix. Returns what it wrote. Any thread, without a lock; a reader that takes nothing holds up the
// caller.
std::string PrintEventBlock(std::initializer_list<EventLine> lines);

// Prints the block, then puts the event into the console's feed, for the sessions that wait for it or monitor it.
void ShowEvent(const char* topic, const google::protobuf::Message& event, std::initializer_list<EventLine> lines);

#endif  // EXAMPLE_RPCSERVICE_PUBSUB_EVENT_BLOCK_H_
