// The record of each line that is run: who ran it, on what, and how it ended.
#ifndef KLBASE_CONSOLE_RECORD_LINE_RECORD_H_
#define KLBASE_CONSOLE_RECORD_LINE_RECORD_H_

#include <chrono>
#include <string>
#include <string_view>

#include "cli/outcome.h"
#include "console/record/journal.h"
#include "console/session_control.h"

namespace cli::internal {

struct LineRecord {
  int session = 0;
  SessionKind kind = SessionKind::kTelnet;
  std::string user;  // the name of the user, where the kernel knows it, else the address
  std::string line;  // as it was typed
  Status status = Status::kOk;
  int code = 0;
  std::chrono::microseconds time{0};
};

// Bytes of a line that a record has; the rest is cut off.
constexpr std::size_t kMaxRecordedBytes = 1000;

// Counts it in the metrics and writes it to the log, at level 30, and where there is a journal to that; at higher log
// levels to neither. Before the answer goes out: who has that, finds the line in the metrics, and in the log even if
// the tool ends at once. Any thread.
void RecordLine(const LineRecord& record, Journal& journal = Journal::OfProcess());

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_RECORD_LINE_RECORD_H_
