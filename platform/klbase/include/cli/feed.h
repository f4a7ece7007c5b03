// The events of the process, for its sessions: they watch them as they come and wait for one.
#ifndef CLI_FEED_H_
#define CLI_FEED_H_

#include <functional>
#include <string>

#include "klbase/export.h"

namespace cli {

// Puts an event at the end of the feed, which keeps the last 4096. `topic` is where it was published, `text` its
// printed form, whole lines, and `message` the same as a JSON object whose keys are the message's own field names.
// Sessions that wait or monitor see it before the call returns. Any thread; never waits for a reader. Not with a lock
// held that a command may want.
KLBASE_EXPORT void PostEvent(std::string topic, std::string text, std::string message);

// The same for a message that takes time to be made into JSON: `message` is called once somebody looks at it, at most
// once, on any thread and at any time from now on. It must own what it needs, and must not throw.
KLBASE_EXPORT void PostEvent(std::string topic, std::string text, std::function<std::string()> message);

}  // namespace cli

#endif  // CLI_FEED_H_
