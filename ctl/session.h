// An operator's session over the control socket, on the terminal that vexctl runs at.
#ifndef CTL_SESSION_H_
#define CTL_SESSION_H_

#include "ctl/arguments.h"
#include "ctl/report.h"

namespace vexctl {

// Until the operator leaves, by the console's `exit` or by Ctrl-]. The terminal is as it was before when it returns,
// and when the process ends by SIGTERM, SIGHUP, SIGQUIT or SIGINT. Returns the exit status.
int RunSession(const Arguments& arguments, Report& report);

}  // namespace vexctl

#endif  // CTL_SESSION_H_
