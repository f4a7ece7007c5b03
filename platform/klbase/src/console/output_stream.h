// The stream that a session's commands print on.
#ifndef KLBASE_CONSOLE_OUTPUT_STREAM_H_
#define KLBASE_CONSOLE_OUTPUT_STREAM_H_

#include <ostream>
#include <streambuf>

#include "console/output_buffer.h"
#include "text/clean_text.h"

namespace cli::internal {

// Passes each piece of text to the OutputBuffer at once; blocks there while the operator doesn't read, and has its
// badbit set once the buffer is closed. Commands print what daemons and others sent: on its way to a screen the text is
// made clean (text/clean_text.h), to a program it goes as it is. One thread at a time. `output` must outlive it.
class OutputStream : public std::ostream {
 public:
  OutputStream(OutputBuffer* output, bool on_screen);

  // Passes on the text that was held back in case that more of its character comes. To be called behind a command.
  void Finish();
  // Makes it as it was in the beginning: a handler may leave a stream in any state.
  void Reset();

 private:
  class Buffer : public std::streambuf {
   public:
    Buffer(OutputBuffer* output, bool on_screen) : output_(output), on_screen_(on_screen) {}
    void Finish() { output_->Print(filter_.Finish()); }

   protected:
    std::streamsize xsputn(const char* text, std::streamsize count) override;
    int_type overflow(int_type c) override;
    int sync() override { return output_->Closed() ? -1 : 0; }

   private:
    OutputBuffer* const output_;
    const bool on_screen_;
    klbase_internal::ScreenFilter filter_;
  };

  Buffer buffer_;
};

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_OUTPUT_STREAM_H_
