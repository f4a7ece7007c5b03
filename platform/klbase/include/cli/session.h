// The operator's session as a command sees it.
#ifndef CLI_SESSION_H_
#define CLI_SESSION_H_

#include <iosfwd>

#include "klbase/export.h"

namespace cli {

class Menu;

// One live console session: a place in the menu tree and an output stream. Owned by the console and valid while the
// command runs. Used by the thread that runs the session's commands; implement it to run commands without a console.
class KLBASE_EXPORT Session {
 public:
  Session() = default;
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;
  virtual ~Session() = default;

  // The stream of the operator who typed the line. Writing blocks while the operator's terminal can't take more (at
  // most 30 s); once the operator is gone the stream's badbit is set and text written to it is dropped.
  virtual std::ostream& OutStream() = 0;

  // The menu in which the next line is looked up. `menu` must be in the console's tree.
  virtual Menu& CurrentMenu() = 0;
  virtual void Enter(Menu& menu) = 0;
};

}  // namespace cli

#endif  // CLI_SESSION_H_
