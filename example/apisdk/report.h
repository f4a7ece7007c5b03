// Tells the session how a command that asked a daemon ended.
#ifndef EXAMPLE_APISDK_REPORT_H_
#define EXAMPLE_APISDK_REPORT_H_

#include <ostream>
#include <string_view>

// Reports the calling thread's last operation of the API: status, code and reason. `daemon` is the name by which the
// reason calls it.
void ReportLastCall(std::ostream& out, std::string_view daemon);

#endif  // EXAMPLE_APISDK_REPORT_H_
