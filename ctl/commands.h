// What vexctl does, once it has understood its words. Each function returns the exit status.
#ifndef CTL_COMMANDS_H_
#define CTL_COMMANDS_H_

#include "ctl/arguments.h"
#include "ctl/connection.h"
#include "ctl/report.h"

namespace vexctl {

int RunSources(const Arguments& arguments, Report& report);
int Monitor(const Arguments& arguments, Report& report);
int Complete(const Arguments& arguments, Report& report);

// Connects, or reports why not.
int Connect(const Arguments& arguments, Connection& connection, Report& report);

}  // namespace vexctl

#endif  // CTL_COMMANDS_H_
