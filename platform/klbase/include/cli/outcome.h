// How a command ended: what its handler says of it, next to what it prints.
#ifndef CLI_OUTCOME_H_
#define CLI_OUTCOME_H_

#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "klbase/export.h"

namespace cli {

enum class Status {
  kOk,
  kRefused,      // the daemon said no, or an expectation was not met
  kUsage,        // the line itself was wrong; the console reports it
  kUnreachable,  // nobody answered: no daemon, or not one that may serve
  kTimeout,      // a time limit was over
  kCancelled,    // somebody gave it up
  kFailed,       // anything else; also an exception, which the console reports
};

// "ok", "refused", "usage", "unreachable", "timeout", "cancelled", "failed". A static text.
KLBASE_EXPORT const char* StatusName(Status status);

// How a command ended, and the values that it showed, in the order in which they were reported.
struct Outcome {
  Status status = Status::kOk;
  int code = 0;        // the daemon's own number, or the message RPC's; 0: none
  std::string reason;  // one sentence without its end; "" when there is nothing to say
  std::vector<std::pair<std::string, std::string>> fields;
};

// Called by a command's handler with the stream that it prints on, on the thread that runs it. They print nothing. On a
// stream that nobody watches (see OutcomeRecorder) they do nothing. A handler that reports nothing ended well.
//
// A later Report() replaces the one before; a field that is reported again stands twice.
KLBASE_EXPORT void Report(std::ostream& out, Status status, int code, std::string_view reason);
// `name` is the field's word in scripts, such as "info_seek_ms"; `value` is the text as it is printed.
KLBASE_EXPORT void ReportField(std::ostream& out, std::string_view name, std::string_view value);

// Collects what is reported through `out` while it stands. The console has one for each command; use it to run commands
// without a console. Recorders of one stream, which must outlive them, nest: the innermost is told. Not thread-safe.
class KLBASE_EXPORT OutcomeRecorder {
 public:
  explicit OutcomeRecorder(std::ostream& out);
  OutcomeRecorder(const OutcomeRecorder&) = delete;
  OutcomeRecorder& operator=(const OutcomeRecorder&) = delete;
  ~OutcomeRecorder();

  const Outcome& Get() const { return outcome_; }
  Outcome& Get() { return outcome_; }

 private:
  std::ostream& out_;
  Outcome outcome_;
  void* outer_;
};

}  // namespace cli

#endif  // CLI_OUTCOME_H_
