// What an attached terminal sends: typed bytes, and now and then the window's new size.
#ifndef KLBASE_CONSOLE_CONTROL_PROTOCOL_ATTACHED_INPUT_H_
#define KLBASE_CONSOLE_CONTROL_PROTOCOL_ATTACHED_INPUT_H_

#include <string>
#include <string_view>

namespace cli::internal {

// A size comes as telnet has it (RFC 1073): the bytes 255 250 31, columns and rows with two bytes each, the higher one
// first, 255 240. A byte 255 of a number, or a typed one, is doubled; UTF-8 has none. Other commands that begin with
// 255 mean nothing and are dropped. The result is the same at whatever byte the input is split. One thread.
class AttachedInput {
 public:
  class Receiver {
   public:
    virtual ~Receiver() = default;
    virtual void OnTyped(std::string_view bytes) = 0;
    virtual void OnWindowSize(int columns, int rows) = 0;
  };

  void Feed(std::string_view bytes, Receiver& receiver);

 private:
  enum class State {
    kTyped,
    kCommand,     // behind 255
    kOption,      // behind 255 and a command that has an option
    kSub,         // behind 255 250
    kSubCommand,  // behind a 255 in there
  };

  void FeedCommand(unsigned char byte, Receiver& receiver);
  void FeedSub(unsigned char byte);
  void EndSub(Receiver& receiver);

  State state_ = State::kTyped;
  std::string sub_;
};

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_CONTROL_PROTOCOL_ATTACHED_INPUT_H_
