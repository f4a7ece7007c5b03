// Names of nodes and topics as parts of NATS subjects.
#ifndef LINK_EVENTS_SUBJECT_H_
#define LINK_EVENTS_SUBJECT_H_

#include <string>
#include <string_view>

namespace vexlink {

// Letters, digits, "-" and "_", at most 64 of them, and not "all", which means every node.
bool IsNodeName(std::string_view name);

// The machine's name up to its first dot; "" where that isn't a node's name.
std::string NodeNameOfHost();

// A topic as tokens of a subject: "/" becomes ".", so that layer/report is layer.report and "layer.*" or "layer.>"
// match it. What means something in a subject, blanks, control characters and "%" become % and two hexadecimal digits;
// an empty part, which a subject can't have, becomes a lone "%". So no two topics have the same subject, but for those
// above kMostTopicBytes, whose rest is left out.
std::string TopicTokens(std::string_view topic);

constexpr std::size_t kMostTopicBytes = 1000;  // of the tokens; servers take subjects up to about 4 KiB

}  // namespace vexlink

#endif  // LINK_EVENTS_SUBJECT_H_
