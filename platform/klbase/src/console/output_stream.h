// The stream that a session's commands print on.
#ifndef KLBASE_CONSOLE_OUTPUT_STREAM_H_
#define KLBASE_CONSOLE_OUTPUT_STREAM_H_

#include <cstddef>
#include <optional>
#include <ostream>
#include <stop_token>
#include <streambuf>
#include <string_view>
#include <utility>

#include "cli/line_filter.h"
#include "console/command_output.h"
#include "text/clean_text.h"

namespace cli::internal {

// Passes each piece of text to its output at once; blocks there while the operator doesn't read, and has its badbit set
// once the output is closed. Commands print what daemons and others sent: on its way to a screen the text is made clean
// (text/clean_text.h), to a program it goes as it is. Before that the operator's filters choose from it. One thread at
// a time. `output` must outlive it.
class OutputStream : public std::ostream {
 public:
  OutputStream(CommandOutput* output, bool on_screen);

  // For the commands that follow.
  void SetFilter(LineFilter filter) { buffer_.SetFilter(std::move(filter)); }
  // For the commands that follow: from the moment that a stop is requested, nothing is passed on.
  void EndWith(std::stop_token given_up) { buffer_.EndWith(std::move(given_up)); }
  // The command has failed: Finish() tells no count.
  void DropCount() { buffer_.DropCount(); }
  // Passes on the text that was held back in case that more of its line or character comes. To be called behind a
  // command. Returns how many lines the filters have counted, if they count.
  std::optional<std::size_t> Finish() { return buffer_.Finish(); }
  // Makes it as it was in the beginning: a handler may leave a stream in any state.
  void Reset();

 private:
  class Buffer : public std::streambuf {
   public:
    Buffer(CommandOutput* output, bool on_screen) : output_(output), on_screen_(on_screen) {}
    void SetFilter(LineFilter filter) { filter_ = std::move(filter); }
    void EndWith(std::stop_token given_up) { given_up_ = std::move(given_up); }
    void DropCount() { filter_.DropCount(); }
    std::optional<std::size_t> Finish();

   protected:
    std::streamsize xsputn(const char* text, std::streamsize count) override;
    int_type overflow(int_type c) override;
    int sync() override { return output_->Closed() ? -1 : 0; }

   private:
    bool Print(std::string_view piece) { return PassOn(on_screen_ ? cleaner_.Pass(piece) : piece); }
    bool PassOn(std::string_view text) { return !given_up_.stop_requested() && output_->Print(text); }

    CommandOutput* const output_;
    const bool on_screen_;
    std::stop_token given_up_;
    LineFilter filter_;
    klbase_internal::ScreenFilter cleaner_;
  };

  Buffer buffer_;
};

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_OUTPUT_STREAM_H_
