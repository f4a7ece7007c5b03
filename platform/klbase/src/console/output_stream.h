// The stream that a session's commands print on.
#ifndef KLBASE_CONSOLE_OUTPUT_STREAM_H_
#define KLBASE_CONSOLE_OUTPUT_STREAM_H_

#include <ostream>
#include <streambuf>

#include "console/output_buffer.h"

namespace cli::internal {

// Passes each piece of text to the OutputBuffer at once; blocks there while the operator doesn't read, and has its
// badbit set once the buffer is closed. One thread at a time. `output` must outlive it.
class OutputStream : public std::ostream {
 public:
  explicit OutputStream(OutputBuffer* output);

  // Makes it as it was in the beginning: a handler may leave a stream in any state.
  void Reset();

 private:
  class Buffer : public std::streambuf {
   public:
    explicit Buffer(OutputBuffer* output) : output_(output) {}

   protected:
    std::streamsize xsputn(const char* text, std::streamsize count) override;
    int_type overflow(int_type c) override;
    int sync() override { return output_->Closed() ? -1 : 0; }

   private:
    OutputBuffer* const output_;
  };

  Buffer buffer_;
};

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_OUTPUT_STREAM_H_
