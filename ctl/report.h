// How a line ended: what vexctl prints of it, and its exit status.
#ifndef CTL_REPORT_H_
#define CTL_REPORT_H_

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "ctl/arguments.h"

namespace vexctl {

using Json = nlohmann::ordered_json;

inline constexpr int kExitOk = 0;
inline constexpr int kExitRefused = 1;
inline constexpr int kExitUsage = 2;
inline constexpr int kExitUnreachable = 3;
inline constexpr int kExitTimeout = 4;
inline constexpr int kExitCancelled = 130;

// The exit status for a status' name.
int ExitStatus(std::string_view status);

// A reply that no tool has sent: the line was not run, or it is not known how it ended.
Json MadeReply(std::string_view status, const std::string& reason);

// Prints what vexctl has to say, as its arguments want it. Output is collected, and written by Flush(); nothing in it
// acts on a terminal that it is written to. One thread.
class Report {
 public:
  // `arguments` must outlive it.
  explicit Report(const Arguments& arguments);

  // A line of a script that replies belong to: "" for none. Shown with failures.
  void At(std::string place) { place_ = std::move(place); }
  // The reply to a line. Returns the exit status.
  int Reply(const Json& reply);
  // The field that is asked for, of the last line's reply. Returns the exit status.
  int Field(const Json& reply);
  // A line that the tool has sent without being asked: an event, or how many were missed.
  void Event(std::string_view raw);
  void Print(std::string_view text) { output_ += text; }
  // False, and said on standard error, when the output can't be written.
  bool Flush();
  bool IsLarge() const { return output_.size() > 64 << 10; }

 private:
  void Complain(const std::string& text);

  const Arguments& arguments_;
  const bool cleans_output_;
  const bool cleans_errors_;
  std::string place_;
  std::string output_;
  bool failed_ = false;
};

}  // namespace vexctl

#endif  // CTL_REPORT_H_
