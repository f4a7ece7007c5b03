// A line for everybody at the console, from anywhere in the process.
#ifndef CLI_NOTICE_H_
#define CLI_NOTICE_H_

#include <string_view>

#include "klbase/export.h"

namespace cli {

// Shows `line`, above the line that is being typed, in each interactive session (telnet or the local terminal) of the
// process's consoles that has logged in. Programs on TCP and pipes get nothing, nor does a session whose reader leaves
// more than 256 KiB unread. A line end in it becomes a blank. Any thread; never waits for a reader, and does nothing
// without a console. Not for a slot or handler that holds a lock: the line is drawn on the calling thread.
KLBASE_EXPORT void PostNotice(std::string_view line);

}  // namespace cli

#endif  // CLI_NOTICE_H_
