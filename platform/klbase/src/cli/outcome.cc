#include "cli/outcome.h"

#include <ios>
#include <utility>

namespace cli {
namespace {

// The stream's own place for the recorder's outcome; null while nobody watches. It survives clear() and a changed
// buffer, and std::ios::copyfmt(), which a handler has no reason to call, would only carry it to another stream.
int Slot() {
  static const int slot = std::ios_base::xalloc();
  return slot;
}

Outcome* Watched(std::ostream& out) { return static_cast<Outcome*>(out.pword(Slot())); }

}  // namespace

const char* StatusName(Status status) {
  switch (status) {
    case Status::kOk:
      return "ok";
    case Status::kRefused:
      return "refused";
    case Status::kUsage:
      return "usage";
    case Status::kUnreachable:
      return "unreachable";
    case Status::kTimeout:
      return "timeout";
    case Status::kCancelled:
      return "cancelled";
    case Status::kFailed:
      return "failed";
  }
  return "failed";
}

void Report(std::ostream& out, Status status, int code, std::string_view reason) {
  Outcome* outcome = Watched(out);
  if (outcome == nullptr) return;
  outcome->status = status;
  outcome->code = code;
  outcome->reason = reason;
}

void ReportField(std::ostream& out, std::string_view name, std::string_view value) {
  if (Outcome* outcome = Watched(out)) outcome->fields.emplace_back(name, value);
}

OutcomeRecorder::OutcomeRecorder(std::ostream& out) : out_(out), outer_(std::exchange(out_.pword(Slot()), &outcome_)) {}

OutcomeRecorder::~OutcomeRecorder() { out_.pword(Slot()) = outer_; }

}  // namespace cli
