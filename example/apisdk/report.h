// Tells the session how a command that asked a daemon ended.
#ifndef EXAMPLE_APISDK_REPORT_H_
#define EXAMPLE_APISDK_REPORT_H_

#include <ostream>
#include <string>
#include <string_view>

// Reports the calling thread's last operation of the API: status, code and reason. `daemon` is the name by which the
// reason calls it.
void ReportLastCall(std::ostream& out, std::string_view daemon);

// Reports a call without a reply: `code` and `text` are the message RPC's.
void ReportNoReply(std::ostream& out, std::string_view daemon, int code, const std::string& text);
// Reports what the daemon says of a request in its reply.
void ReportReply(std::ostream& out, std::string_view daemon, bool accepted, int code, const std::string& text);

#endif  // EXAMPLE_APISDK_REPORT_H_
