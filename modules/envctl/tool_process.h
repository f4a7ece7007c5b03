// popen and pclose for the device's settings tools: the same, but a tool that hangs neither holds its caller for ever
// nor is left behind.
#ifndef ENVCTL_TOOL_PROCESS_H_
#define ENVCTL_TOOL_PROCESS_H_

#include <cstdint>
#include <cstdio>

// By C's names, by which tests put themselves in their place.
extern "C" {

// Starts `command` with popen and returns a stream that reads its output; null, with errno, when it can't be started.
// After `limit_ms` milliseconds it is killed with all that it started, and reading fails with ETIMEDOUT; the same, with
// ECANCELED, once `stop_fd` is readable, if it is not -1. It is killed as well when this process exits; ECANCELED is
// the answer from then on. Any thread; a stream belongs to one.
FILE* OpenSettingsTool(const char* command, std::int64_t limit_ms, int stop_fd);

// Closes the stream and waits for the tool until the limit. True when the tool ended by itself before; false when it
// was killed, for the limit, the stop or the end of this process. Background processes that it leaves when it ends by
// itself are left alone.
bool CloseSettingsTool(FILE* stream);

}  // extern "C"

#endif  // ENVCTL_TOOL_PROCESS_H_
