// What a program asks for on the control socket: one JSON object a line. docs/control.md has them all.
#ifndef KLBASE_CONSOLE_CONTROL_PROTOCOL_REQUEST_H_
#define KLBASE_CONSOLE_CONTROL_PROTOCOL_REQUEST_H_

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace cli::internal {

// The longest line of a request, in bytes, without its end.
inline constexpr std::size_t kMaxRequestBytes = 64 << 10;

struct Request {
  enum class Kind {
    kRun,       // `text` is the line
    kComplete,  // `text` is the beginning of a line
    kMonitor,   // `words` are those of the command "monitor"
    kCancel,    // `text` is the id of the run
    kReset,
    kTerminal,
  };
  Kind kind = Kind::kRun;
  std::string id;  // as it stands in JSON: 7, "a"; "" for none
  std::string text;
  std::vector<std::string> words;
  std::optional<std::chrono::milliseconds> within;  // kRun
  int columns = 0;                                  // kTerminal
  int rows = 0;
  std::string term;
};

struct ParsedRequest {
  std::optional<Request> request;
  std::string id;     // also of a request that is refused, where it could be read
  std::string error;  // why there is no request, for the program's author
};

// `line` is without its end.
ParsedRequest ParseRequest(std::string_view line);

// Takes lines out of a stream of bytes, wherever it is cut. One thread.
class RequestLines {
 public:
  // Calls `take` with each line that is not blank, without its end; `whole` is false, and the line empty, for one of
  // more than kMaxRequestBytes.
  void Feed(std::string_view bytes, const std::function<void(std::string_view line, bool whole)>& take);
  // The bytes that are no line yet, which Feed() has taken, when others take over the stream inside `take`: those of
  // its `bytes` that it has not looked at. Feed() then calls `take` no more.
  std::string TakeRest();

 private:
  std::string line_;
  bool too_long_ = false;
  std::string_view unread_;  // during Feed()
};

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_CONTROL_PROTOCOL_REQUEST_H_
